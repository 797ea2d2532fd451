#include "servers/ftpserver/FtpCommandParser.h"

namespace quillon {

std::string FtpCommand::argument() const {
    return argumentFrom(1);
}

std::string FtpCommand::argumentFrom(std::size_t first) const {
    std::string out;
    for (std::size_t i = first; i < words.size(); ++i) {
        if (i > first) out += ' ';
        out += words[i];
    }
    return out;
}

bool FtpLineBuffer::append(std::string_view bytes) {
    if (overflowed_) return false;
    // Compact before growing so a long session never keeps what it already handed out.
    if (start_ > 0 && start_ == buffer_.size()) {
        buffer_.clear();
        start_ = 0;
    } else if (start_ > limit_) {
        buffer_.erase(0, start_);
        start_ = 0;
    }
    std::size_t scanFrom = buffer_.size();
    buffer_.append(bytes);
    // A finished line over the limit overflows as well as an unfinished one.
    std::size_t lineStart = start_;
    if (scanFrom > start_) {
        auto lastBreak = buffer_.rfind('\n', scanFrom - 1);
        if (lastBreak != std::string::npos && lastBreak >= start_) lineStart = lastBreak + 1;
    }
    for (std::size_t i = scanFrom; i < buffer_.size(); ++i) {
        if (buffer_[i] != '\n') continue;
        if (i - lineStart > limit_) overflowed_ = true;
        lineStart = i + 1;
    }
    if (buffer_.size() - lineStart > limit_) overflowed_ = true;
    if (overflowed_) {
        buffer_.clear();
        start_ = 0;
    }
    return !overflowed_;
}

std::optional<std::string> FtpLineBuffer::nextLine() {
    if (overflowed_) return std::nullopt;
    auto nl = buffer_.find('\n', start_);
    if (nl == std::string::npos) return std::nullopt;
    std::size_t end = nl;
    if (end > start_ && buffer_[end - 1] == '\r') --end;
    std::string line = buffer_.substr(start_, end - start_);
    start_ = nl + 1;
    return line;
}

std::size_t FtpLineBuffer::discard() {
    std::size_t n = pending();
    buffer_.clear();
    start_ = 0;
    return n;
}

namespace FtpCommandParser {

FtpCommand parse(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    while (!line.empty() && (line.front() == '\r' || line.front() == '\n')) line.remove_prefix(1);
    FtpCommand cmd;
    std::size_t pos = 0;
    while (true) {
        auto blank = line.find(' ', pos);
        if (blank == std::string_view::npos) {
            cmd.words.emplace_back(line.substr(pos));
            break;
        }
        cmd.words.emplace_back(line.substr(pos, blank - pos));
        pos = blank + 1;
    }
    cmd.word = cmd.words.front();
    for (auto& c : cmd.word)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return cmd;
}

std::string sanitize(std::string_view text) {
    std::string out(text);
    for (auto& c : out) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) c = '?';
    }
    return out;
}

}  // namespace FtpCommandParser
}  // namespace quillon
