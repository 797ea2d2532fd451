#include "clients/Clients.h"

#include <mutex>

#include "clients/ftp/FtpWrapper.h"
#include "clients/local/LocalWrapper.h"
#include "clients/sftp/SFTPWrapper.h"
#include "clients/smb/SmbWrapper.h"
#include "clients/webdav/WebdavWrapper.h"
#include "core/WrapperProxy.h"

namespace quillon {

void registerBuiltinClients() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Each client adds its registration line here as it is written.
        WrapperProxy::registerClass("LocalWrapper", [](ServerInfoPtr info) -> WrapperPtr {
            return std::make_shared<LocalWrapper>(std::move(info));
        });
        WrapperProxy::registerClass("FtpWrapper", [](ServerInfoPtr info) -> WrapperPtr {
            return std::make_shared<FtpWrapper>(std::move(info));
        });
        WrapperProxy::registerClass("SFTPWrapper", [](ServerInfoPtr info) -> WrapperPtr {
            return std::make_shared<SFTPWrapper>(std::move(info));
        });
        WrapperProxy::registerClass("WebdavWrapper", [](ServerInfoPtr info) -> WrapperPtr {
            return std::make_shared<WebdavWrapper>(std::move(info));
        });
        WrapperProxy::registerClass("SmbWrapper", [](ServerInfoPtr info) -> WrapperPtr {
            return std::make_shared<SmbWrapper>(std::move(info));
        });
    });
}

}  // namespace quillon
