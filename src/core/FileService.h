#pragma once
// FileService: the downloaded-file cache. Every server and remote path has one stable place in
// the cache folder.

#include <string>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

namespace quillon {

class FileService {
  public:
    static FileService& sharedService();

    // <cache folder>/Downloaded/<server id>/<remote path>, with each path component made safe
    // ("..", "." and empty components escaped) so that no remote name can leave the folder.
    std::string cachePathForMetadata(const KvMetadata& meta, const ServerInfo& server) const;
    // The folder that holds every server's cached files.
    std::string cacheRootFolder() const;
};

}  // namespace quillon
