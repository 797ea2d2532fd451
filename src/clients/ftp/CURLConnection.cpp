#include "clients/ftp/CURLConnection.h"

#include <curl/curl.h>

#include <chrono>
#include <mutex>
#include <thread>

namespace quillon {

namespace {
size_t refuseBytes(char*, size_t, size_t, void*) {
    return 0;
}
}  // namespace

CURLConnection::CURLConnection() {
    static std::once_flag global;
    std::call_once(global, [] { curl_global_init(CURL_GLOBAL_ALL); });
    curl_ = curl_easy_init();
}

CURLConnection::~CURLConnection() {
    if (curl_) curl_easy_cleanup(curl_);
    if (multi_) curl_multi_cleanup(multi_);
}

int CURLConnection::perform(const std::function<bool()>& shouldStop) {
    if (!curl_) return CURLE_FAILED_INIT;
    if (!multi_) multi_ = curl_multi_init();
    if (!multi_ || curl_multi_add_handle(multi_, curl_) != CURLM_OK)
        return curl_easy_perform(curl_);
    CURLcode result = CURLE_OK;
    bool finished = false;
    for (;;) {
        if (shouldStop && shouldStop()) {
            result = CURLE_ABORTED_BY_CALLBACK;
            break;
        }
        int running = 0;
        if (curl_multi_perform(multi_, &running) != CURLM_OK) {
            result = CURLE_OUT_OF_MEMORY;
            break;
        }
        int queued = 0;
        while (CURLMsg* msg = curl_multi_info_read(multi_, &queued)) {
            if (msg->msg == CURLMSG_DONE && msg->easy_handle == curl_) {
                result = msg->data.result;
                finished = true;
            }
        }
        if (finished || running == 0) break;
        long timeoutMs = -1;
        curl_multi_timeout(multi_, &timeoutMs);
        if (timeoutMs == 0) continue;  // libcurl has work to do at once
        long slice = shouldStop ? 250 : 1000;
        if (timeoutMs < 0 || timeoutMs > slice) timeoutMs = slice;
        int ready = 0;
        auto before = std::chrono::steady_clock::now();
        if (curl_multi_wait(multi_, nullptr, 0, static_cast<int>(timeoutMs), &ready) != CURLM_OK) {
            result = CURLE_OUT_OF_MEMORY;
            break;
        }
        // With no socket to watch, curl_multi_wait returns at once: pause briefly instead of
        // spinning until the awaited reply has arrived.
        if (ready == 0 && std::chrono::steady_clock::now() - before < std::chrono::milliseconds(1))
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    curl_multi_remove_handle(multi_, curl_);
    return result;
}

void CURLConnection::cleanup() {
    if (!curl_) return;
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, refuseBytes);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, refuseBytes);
    curl_easy_cleanup(curl_);
    curl_ = nullptr;
    if (multi_) curl_multi_cleanup(multi_);
    multi_ = nullptr;
}

}  // namespace quillon
