#pragma once
// Shared by the media tests: audio made with sox, text in other encodings made with iconv.

#include <string>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"
#include "support/TestEnv.h"

namespace quillon::test {

// A stereo tone of `seconds` at 44.1 kHz; the format follows the extension (wav, flac).
inline void makeTone(const std::string& path, double seconds, int frequency = 440) {
    auto made =
        runProgram({"sox", "-n", "-r", "44100", "-c", "2", path, "synth", std::to_string(seconds),
                    "sine", std::to_string(frequency), "vol", "0.3"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
}

// `utf8` written to `path` in the iconv encoding.
inline void writeEncoded(const std::string& path, const std::string& utf8,
                         const std::string& encoding) {
    auto conv = runProgram({"iconv", "-f", "UTF-8", "-t", encoding}, utf8);
    ASSERT_EQ(conv.exitCode, 0) << conv.err;
    writeFile(path, conv.out);
}

inline ServerInfoPtr localServer() {
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = ProtocolType::Local;
    return info;
}

inline KvMetadata localFile(const std::string& path) {
    KvMetadata meta(path);
    meta.protocolType = ProtocolType::Local;
    return meta;
}

}  // namespace quillon::test
