#pragma once
// PlayList and PlayListItem: what the player plays when a person opens an audio file or a
// playlist. Three sources, chosen by the opened file's extension: a CUE sheet (one audio file cut
// into tracks by time), an M3U list ("m3u" or "m3u8"), or the audio files of the folder shown.

#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/ServerInfo.h"
#include "core/Wrapper.h"

namespace quillon {

struct PlayListItem {
    ServerInfoPtr serverInfo;
    KvMetadata metadata;  // the audio file (its path may be a URL for an M3U entry)
    std::optional<double> duration;
    double initialPlaybackTime = 0;         // seconds into the file
    std::optional<double> endPlaybackTime;  // absent: to the file's end
    std::string songName;                   // the file name when no title is known
    std::string albumName;
    std::string artist;

    PlayListItem() = default;
    PlayListItem(const KvMetadata& metadata, ServerInfoPtr serverInfo);
    // Whether the item names a URL rather than a file on its server.
    bool isURL() const;
};

class PlayList {
  public:
    std::string CDTitle;
    std::string CDPerformer;
    int currentIndex = 0;
    std::vector<PlayListItem> items;
    ServerInfoPtr serverInfo;
    std::optional<KvMetadata> currentMeta;
    std::vector<KvMetadata> folderContents;
    // M3U entries naming a local file that does not exist (left out of `items`).
    std::vector<std::string> missingEntries;

    // One file.
    static PlayList initWithMetadata(const KvMetadata& meta, const ServerInfoPtr& serverInfo);
    // By the opened file's extension: "cue", "m3u"/"m3u8", else the folder's audio files.
    // Fails when a playlist cannot be read or parsed.
    [[nodiscard]] static Result<PlayList> initWithStartMetadata(
        const KvMetadata& meta, const ServerInfoPtr& serverInfo,
        const std::vector<KvMetadata>& folderContents);

    // What opening `item` plays: its playlist, or the audio files of its folder (listed through
    // `client`; without a listing the file alone).
    [[nodiscard]] static Result<PlayList> playListForOpening(const KvMetadata& item,
                                                             const ServerInfoPtr& serverInfo,
                                                             Wrapper& client);

    // The playlist's text as UTF-8: a local file directly, a remote one downloaded into its cache
    // path first.
    [[nodiscard]] Result<std::string> readMusicListFileContents(const KvMetadata& meta) const;
    // Parsers on text already decoded; `listMeta` is the playlist file (entries are resolved
    // against its folder).
    void parseM3uFile(const std::string& text, const KvMetadata& listMeta);
    [[nodiscard]] Status parseCueFile(const std::string& text, const KvMetadata& listMeta);

    // The length of a local audio file in seconds (from its tags' audio properties).
    static std::optional<double> localFileDuration(const std::string& path);
};

}  // namespace quillon
