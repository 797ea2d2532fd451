#pragma once
// NearbyTransferMetadata: one file on its way to or from a nearby machine, and the texts of the
// socket protocol both sides speak. Commands travel as single writes of UTF-8 text with no
// terminator and no length prefix; a side relies on a command arriving in one read.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quillon {

// Item states shown in a transfer list; an item that has not started yet is Waiting.
namespace NearbyStatus {
inline constexpr int Waiting = 0;
inline constexpr int Transferring = 2;
inline constexpr int Finished = 3;
inline constexpr int Failed = 4;  // or cancelled
}  // namespace NearbyStatus

struct NearbyTransferMetadata {
    // The name the file travels under: its path relative to the dropped folder's parent with "/"
    // separators (Photos/2019/a.jpg), or the bare file name.
    std::string name;
    // The local path: the source on the sender, the saved file on the receiver once saved.
    std::string path;
    std::optional<std::chrono::system_clock::time_point> lastModified;
    std::int64_t fileSize = 0;
    std::int64_t transferredBytes = 0;
    int status = NearbyStatus::Waiting;
};

namespace NearbyProtocol {
inline constexpr int kPort = 4713;
inline constexpr std::string_view kServiceType = "_nsdnearby._tcp.";
inline constexpr std::size_t kChunkSize = 32768;
// The sender waits this long before "STORE_COMPLETED" so that the command does not share a
// read with the last data bytes.
inline constexpr std::chrono::milliseconds kCompletionPause{250};
// The receiver stops this long after answering "DISCONNECT".
inline constexpr std::chrono::milliseconds kStopDelay{2000};

inline constexpr std::string_view STORE = "STORE";
inline constexpr std::string_view STORE_COMPLETED = "STORE_COMPLETED";
inline constexpr std::string_view DISCONNECT = "DISCONNECT";
inline constexpr std::string_view RESPONSE_STORE_OK = "RESPONSE_STORE OK";
inline constexpr std::string_view RESPONSE_STORE_ERROR = "RESPONSE_STORE ERROR";
inline constexpr std::string_view RESPONSE_STORE_COMPLETED = "RESPONSE_STORE_COMPLETED";
inline constexpr std::string_view RESPONSE_DISCONNECT = "RESPONSE_DISCONNECT";

// "STORE <size> <milliseconds> <name>": the time in whole seconds times 1000, 0 when absent.
std::string storeCommand(const NearbyTransferMetadata& meta);
// The parts of a STORE command split at single blanks: size, milliseconds and the name joined
// again from the rest, so runs of blanks inside it survive. Absent with fewer than four parts or
// numbers that do not read as 64-bit decimals. A time above 0 becomes the modification date.
std::optional<NearbyTransferMetadata> parseStoreCommand(std::string_view command);
}  // namespace NearbyProtocol

}  // namespace quillon
