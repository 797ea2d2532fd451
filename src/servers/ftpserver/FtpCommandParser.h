#pragma once
// The control channel's text layer: cutting the byte stream into command lines and splitting a
// line into its words. Free of sockets so that tests and the fuzzer drive it directly.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

// One command line split at single blanks; words[0] is the command word as sent.
struct FtpCommand {
    std::string word;                // the command word, lower-cased (ASCII only)
    std::vector<std::string> words;  // every word, empty ones kept ("a  b" has three)

    // The words after the command joined with single blanks, so names with blanks survive.
    std::string argument() const;
    // The words from index `first` on, joined with single blanks.
    std::string argumentFrom(std::size_t first) const;
};

// Collects control-channel bytes and hands out complete lines. A line (finished or not) longer
// than the limit marks the buffer overflowed, and it hands out nothing more.
class FtpLineBuffer {
  public:
    explicit FtpLineBuffer(std::size_t limit = 4096) : limit_(limit) {}

    // Appends received bytes; false once the buffer has overflowed.
    bool append(std::string_view bytes);
    // The next complete line without its line break (CR LF, or a bare LF), or absent.
    std::optional<std::string> nextLine();
    // Drops every byte not handed out yet; returns how many were dropped.
    std::size_t discard();
    bool overflowed() const { return overflowed_; }
    // Bytes received and not handed out yet.
    std::size_t pending() const { return buffer_.size() - start_; }

  private:
    std::string buffer_;
    std::size_t start_ = 0;
    std::size_t limit_;
    bool overflowed_ = false;
};

namespace FtpCommandParser {
// Splits a decoded line: trailing line breaks trimmed, words split at every single blank, the
// first word lower-cased into `word`. An empty line gives an empty word.
FtpCommand parse(std::string_view line);
// Text fit to stand inside a reply line: control characters (CR, LF, NUL, ...) become "?", so a
// name sent back can neither end a reply early nor add one.
std::string sanitize(std::string_view text);
}  // namespace FtpCommandParser

}  // namespace quillon
