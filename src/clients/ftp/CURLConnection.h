#pragma once
// CURLConnection: the FTP client's pooled session, one libcurl easy handle driven through a
// multi handle of its own that keeps the control connection between requests.

#include <functional>

#include "core/KvConnectionPool.h"

typedef void CURL;
typedef void CURLM;

namespace quillon {

class CURLConnection : public KvConnection {
  public:
    CURLConnection();
    ~CURLConnection() override;
    CURL* curl() const { return curl_; }
    // Runs the request configured on the handle to its end; libcurl's result code.
    // curl_easy_perform is not used: on a reused FTP connection it can leave libcurl with no
    // socket to wait on between PASV and its reply, and each such request then stalls for a
    // full second. `shouldStop`, asked at least every 250 ms, ends the request early with
    // CURLE_ABORTED_BY_CALLBACK (42), also while a server keeps silent.
    int perform(const std::function<bool()>& shouldStop = nullptr);
    // Refuses further reply bytes (write and header callbacks that take nothing), then frees the
    // handle and closes its session.
    void cleanup() override;

  private:
    CURL* curl_ = nullptr;
    CURLM* multi_ = nullptr;
};

}  // namespace quillon
