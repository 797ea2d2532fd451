#include "media/PlayList.h"

#include <fmt/format.h>
#include <libcue.h>
#include <taglib/fileref.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <sstream>

#include "core/FileService.h"
#include "core/FileTypeUtils.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "media/EncodingUtils.h"

namespace quillon {

namespace {

bool isLocalServer(const ServerInfoPtr& server) {
    return !server || server->protocolType == ProtocolType::Local;
}

bool looksLikeURL(std::string_view s) {
    auto colon = s.find("://");
    if (colon == std::string_view::npos || colon == 0) return false;
    return std::all_of(s.begin(), s.begin() + static_cast<long>(colon), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
    });
}

KvMetadata entryMetadata(const std::string& path, const ServerInfoPtr& server) {
    KvMetadata meta(path);
    if (server) {
        meta.protocolType = server->protocolType;
        meta.serverID = server->serverID;
    }
    return meta;
}

// An entry's path: URLs as they are, absolute paths on the playlist's server, anything else
// relative to the playlist's folder.
std::string resolveEntry(const std::string& entry, const KvMetadata& listMeta) {
    if (looksLikeURL(entry) || entry.starts_with("/")) return entry;
    std::string folder =
        StringUtils::stringByDeletingLastPathComponentDirectly(listMeta.path().value_or(""));
    std::string rel = entry;
    // Lists written on Windows separate folders with backslashes.
    std::replace(rel.begin(), rel.end(), '\\', '/');
    while (rel.starts_with("./")) rel.erase(0, 2);
    return folder.empty() ? rel : folder + "/" + rel;
}

std::string normalised(const std::string& path) {
    return std::filesystem::path(path).lexically_normal().string();
}

// libcue's parser keeps global state.
std::mutex& cueMutex() {
    static std::mutex m;
    return m;
}

Error parseError(std::string reason) {
    return KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::TransferFailed, reason);
}

}  // namespace

PlayListItem::PlayListItem(const KvMetadata& meta, ServerInfoPtr server)
    : serverInfo(std::move(server)), metadata(meta) {
    songName = meta.name().value_or(meta.path().value_or(""));
}

bool PlayListItem::isURL() const {
    return looksLikeURL(metadata.path().value_or(""));
}

PlayList PlayList::initWithMetadata(const KvMetadata& meta, const ServerInfoPtr& serverInfo) {
    PlayList list;
    list.serverInfo = serverInfo;
    list.currentMeta = meta;
    list.items.emplace_back(meta, serverInfo);
    return list;
}

Result<PlayList> PlayList::initWithStartMetadata(const KvMetadata& meta,
                                                 const ServerInfoPtr& serverInfo,
                                                 const std::vector<KvMetadata>& folderContents) {
    PlayList list;
    list.serverInfo = serverInfo;
    list.currentMeta = meta;
    list.folderContents = folderContents;
    std::string ext = StringUtils::toLower(StringUtils::pathExtension(meta.name().value_or("")));
    if (ext == "cue" || ext == "m3u" || ext == "m3u8") {
        auto text = list.readMusicListFileContents(meta);
        if (!text) return std::unexpected(text.error());
        if (ext == "cue") {
            if (auto parsed = list.parseCueFile(*text, meta); !parsed)
                return std::unexpected(parsed.error());
        } else {
            list.parseM3uFile(*text, meta);
        }
        return list;
    }
    if (isLocalServer(serverInfo) || serverInfo->supportMediaStream()) {
        for (auto& entry : folderContents) {
            auto name = entry.name().value_or("");
            if (entry.isDir || !FileTypeUtils::isAudio(name) ||
                FileTypeUtils::isAudioPlaylist(name))
                continue;
            if (entry.path() == meta.path())
                list.currentIndex = static_cast<int>(list.items.size());
            list.items.emplace_back(entry, serverInfo);
        }
    }
    // A file the listing did not hold (or a kind the player reads anyway) still plays alone.
    if (list.items.empty()) list.items.emplace_back(meta, serverInfo);
    return list;
}

Result<PlayList> PlayList::playListForOpening(const KvMetadata& item,
                                              const ServerInfoPtr& serverInfo, Wrapper& client) {
    std::vector<KvMetadata> contents;
    auto name = item.name().value_or("");
    if (!FileTypeUtils::isAudioPlaylist(name) && FileTypeUtils::isAudio(name)) {
        KvMetadata folder(
            StringUtils::stringByDeletingLastPathComponentDirectly(item.path().value_or("/")));
        if (folder.path().value_or("").empty()) folder = KvMetadata(std::string("/"));
        folder.isDir = true;
        folder.protocolType = item.protocolType;
        folder.serverID = item.serverID;
        if (auto listed = client.contentsOfDirectoryAtPathSync(folder)) {
            contents = std::move(*listed);
            std::stable_sort(contents.begin(), contents.end(), [](auto& a, auto& b) {
                return a.name().value_or("") < b.name().value_or("");
            });
        }
    }
    return initWithStartMetadata(item, serverInfo, contents);
}

Result<std::string> PlayList::readMusicListFileContents(const KvMetadata& meta) const {
    auto path = meta.path();
    if (!path) return std::unexpected(parseError("The playlist has no path."));
    if (isLocalServer(serverInfo))
        return EncodingUtils::stringFromLocalFileWithAutomaticEncoding(*path);
    auto client = WrapperProxy::wrapperWithServerInfo(serverInfo);
    if (!client) return std::unexpected(parseError("No client for the playlist's server."));
    std::string local = FileService::sharedService().cachePathForMetadata(meta, *serverInfo);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(local).parent_path(), ec);
    if (auto got = client->downloadSync(meta, local, nullptr); !got)
        return std::unexpected(got.error());
    return EncodingUtils::stringFromLocalFileWithAutomaticEncoding(local);
}

void PlayList::parseM3uFile(const std::string& text, const KvMetadata& listMeta) {
    std::optional<double> nextDuration;
    std::optional<std::string> nextTitle;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t end = text.find_first_of("\r\n", pos);
        if (end == std::string::npos) end = text.size();
        std::string line = StringUtils::trim(std::string_view(text).substr(pos, end - pos));
        pos = end + 1;
        if (line.empty()) continue;
        if (line.front() == '#') {
            auto at = line.find("EXTINF:");
            if (at == std::string::npos) continue;
            std::string info = line.substr(at + 7);
            auto comma = info.find(',');
            // Without a comma the line holds only the duration.
            std::string seconds = comma == std::string::npos ? info : info.substr(0, comma);
            nextTitle = comma == std::string::npos
                            ? std::nullopt
                            : std::optional(StringUtils::trim(info.substr(comma + 1)));
            if (nextTitle && nextTitle->empty()) nextTitle.reset();
            char* stop = nullptr;
            double d = std::strtod(seconds.c_str(), &stop);
            nextDuration = stop != seconds.c_str() && d > 0 ? std::optional(d) : std::nullopt;
            continue;
        }
        std::string path = resolveEntry(line, listMeta);
        bool url = looksLikeURL(path);
        if (!url && isLocalServer(serverInfo)) {
            path = normalised(path);
            std::error_code ec;
            if (!std::filesystem::is_regular_file(path, ec)) {
                missingEntries.push_back(line);
                nextDuration.reset();
                nextTitle.reset();
                continue;
            }
        }
        PlayListItem item(entryMetadata(path, serverInfo), serverInfo);
        if (url) item.songName = StringUtils::stringByUnescapingFromURL(item.songName);
        if (nextTitle) item.songName = *nextTitle;
        item.duration = nextDuration;
        items.push_back(std::move(item));
        nextDuration.reset();
        nextTitle.reset();
    }
}

// libcue reports what it cannot read on standard error; a sheet is checked line by line first, so
// that nothing reaches the terminal and the error names the line.
static std::optional<int> firstForeignLine(const std::string& text) {
    static const std::vector<std::string> keywords{
        "REM",        "CATALOG",   "CDTEXTFILE", "FILE",     "TRACK",   "INDEX",
        "PREGAP",     "POSTGAP",   "FLAGS",      "ISRC",     "TITLE",   "PERFORMER",
        "SONGWRITER", "COMPOSER",  "ARRANGER",   "MESSAGE",  "DISC_ID", "GENRE",
        "TOC_INFO1",  "TOC_INFO2", "UPC_EAN",    "SIZE_INFO"};
    std::istringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::istringstream words(line);
        std::string first;
        if (!(words >> first)) continue;
        if (std::find(keywords.begin(), keywords.end(), StringUtils::toUpper(first)) ==
            keywords.end())
            return number;
    }
    return std::nullopt;
}

Status PlayList::parseCueFile(const std::string& text, const KvMetadata& listMeta) {
    if (auto line = firstForeignLine(text))
        return std::unexpected(
            parseError(fmt::format("The CUE sheet cannot be read (line {}).", *line)));
    std::lock_guard lock(cueMutex());
    Cd* cd = cue_parse_string(text.c_str());
    if (!cd) return std::unexpected(parseError("The CUE sheet cannot be parsed."));
    auto cdtext = [](Cdtext* t, Pti pti) -> std::string {
        const char* v = t ? cdtext_get(pti, t) : nullptr;
        return v ? v : "";
    };
    CDTitle = cdtext(cd_get_cdtext(cd), PTI_TITLE);
    CDPerformer = cdtext(cd_get_cdtext(cd), PTI_PERFORMER);
    int count = cd_get_ntrack(cd);
    std::vector<PlayListItem> tracks;
    std::vector<std::string> files;
    for (int i = 1; i <= count; ++i) {
        Track* track = cd_get_track(cd, i);
        const char* file = track ? track_get_filename(track) : nullptr;
        if (!file) continue;
        std::string path = resolveEntry(file, listMeta);
        if (isLocalServer(serverInfo)) path = normalised(path);
        PlayListItem item(entryMetadata(path, serverInfo), serverInfo);
        item.initialPlaybackTime = static_cast<double>(track_get_start(track)) / 75.0;
        std::string title = cdtext(track_get_cdtext(track), PTI_TITLE);
        item.songName = title.empty() ? fmt::format("Track {}", i) : title;
        item.artist = cdtext(track_get_cdtext(track), PTI_PERFORMER);
        if (item.artist.empty()) item.artist = CDPerformer;
        item.albumName = CDTitle;
        files.push_back(path);
        tracks.push_back(std::move(item));
    }
    cd_delete(cd);
    if (tracks.empty()) return std::unexpected(parseError("The CUE sheet names no tracks."));
    for (std::size_t i = 0; i < tracks.size(); ++i) {
        auto& t = tracks[i];
        if (i + 1 < tracks.size() && files[i + 1] == files[i]) {
            t.endPlaybackTime = tracks[i + 1].initialPlaybackTime;
        } else if (isLocalServer(serverInfo)) {
            // The last track of a file ends with the file; remote files play to their end.
            t.endPlaybackTime = localFileDuration(files[i]);
        }
        if (t.endPlaybackTime) t.duration = *t.endPlaybackTime - t.initialPlaybackTime;
    }
    items = std::move(tracks);
    return {};
}

std::optional<double> PlayList::localFileDuration(const std::string& path) {
    TagLib::FileRef ref(path.c_str(), true, TagLib::AudioProperties::Accurate);
    if (ref.isNull() || !ref.audioProperties()) return std::nullopt;
    int ms = ref.audioProperties()->lengthInMilliseconds();
    if (ms <= 0) return std::nullopt;
    return ms / 1000.0;
}

}  // namespace quillon
