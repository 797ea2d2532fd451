#pragma once
// StreamHttpServerService: the loopback HTTP servers through which a media player reads the file
// being played (port 21901) and the thumbnail maker samples one (port 21903). Each answers every
// GET with the file set last, whatever the URL's path, honouring byte ranges. Both listen on
// 127.0.0.1 only.
//
// Requests are handled by libmicrohttpd on one thread of its own. A remote read that has to wait
// for the server parks its connection (suspend and resume) and runs on the background queue, so
// one slow read never holds up the others; a cached run goes out with sendfile. A body that has
// caught up with the fetch bringing its bytes is parked until the fetch's writes wake it, and
// is then sent from the cache.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

namespace quillon {

class StreamHttpServerService {
  public:
    static constexpr int kPlaybackPort = 21901;
    static constexpr int kThumbnailPort = 21903;

    static StreamHttpServerService& sharedHttpServerService();
    static StreamHttpServerService& sharedHttpServerForThumbnail();
    explicit StreamHttpServerService(bool isServiceForThumbnail);
    ~StreamHttpServerService();
    StreamHttpServerService(const StreamHttpServerService&) = delete;
    StreamHttpServerService& operator=(const StreamHttpServerService&) = delete;

    bool isServiceForThumbnail() const;
    // The port startServer listens on: 21901 (21903 for thumbnails) unless set; 0 picks a free
    // one.
    void setPort(int port);
    int port() const;
    // Stops the server, then listens on 127.0.0.1 at the port. A port in use fails with
    // "Port N on 127.0.0.1 is already in use." (EADDRINUSE).
    [[nodiscard]] Status startServer();
    // Ends every answer in progress and stops listening; does nothing when offline.
    void stopServer();
    bool isOnline() const;
    // The port listened on while online, else 0.
    int listeningPort() const;
    // "http://127.0.0.1:<port>/" while online, else empty.
    std::string httpServerURL() const;

    // The server of the file offered next (a copy is kept).
    void setServerInfo(const ServerInfoPtr& serverInfo);
    // Offers the file: answers in progress are cancelled and background fetching stops.
    void setMetadata(const std::optional<KvMetadata>& metadata);
    ServerInfoPtr serverInfo() const;
    std::optional<KvMetadata> metadata() const;
    // Answers in progress.
    std::size_t responseCount() const;

    // One line per request ("GET /path bytes=0- 206 bytes 0-99/1000"), on the server's threads.
    void setLogHandler(std::function<void(const std::string&)> handler);

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

// Makes the cached reader and the playback server the streaming read of every client
// (StreamingSupport). Idempotent.
void installStreaming();

// Starts the playback server (installing streaming first) unless it runs: on its usual port, else,
// when another program holds that one, on any free port; a player is given the address either way.
Status startPlaybackServer();

}  // namespace quillon
