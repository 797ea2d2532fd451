#include "nearby/NearbyDiscovery.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-common/timeval.h>
#include <fmt/format.h>

#include <atomic>
#include <map>
#include <set>

#include "core/MainQueue.h"
#include "nearby/NearbyTransferMetadata.h"
#include "nearby/NearbyUtils.h"

namespace quillon {

namespace {

// Avahi names the type without the root's final dot.
std::string avahiServiceType() {
    std::string type(NearbyProtocol::kServiceType);
    if (!type.empty() && type.back() == '.') type.pop_back();
    return type;
}

Error discoveryError(int avahiError, const std::string& what) {
    return KvError::errorWithDomain(
        ErrorDomain::NearbyFileTransfer, avahiError,
        fmt::format("Nearby discovery: {}: {}", what, avahi_strerror(avahiError)));
}

// DNS-SD instance names hold at most 63 bytes: the display name is cut at a character boundary.
std::string fittingServiceName(const std::string& displayName) {
    std::string suffix = NearbyUtils::serviceNameForDisplayName("");
    std::string name = displayName;
    if (name.size() + suffix.size() > 63) {
        std::size_t cut = 63 - suffix.size();
        while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
        name.resize(cut);
    }
    return NearbyUtils::serviceNameForDisplayName(name);
}

}  // namespace

struct NearbyDiscovery::Impl {
    struct Resolving {
        AvahiServiceResolver* resolver = nullptr;
        AvahiTimeout* timeout = nullptr;
        std::unique_ptr<std::pair<Impl*, std::string>> key;  // the timeout's user data
    };

    Events events;
    AvahiThreadedPoll* poll = nullptr;
    AvahiClient* client = nullptr;
    AvahiEntryGroup* group = nullptr;
    AvahiServiceBrowser* browser = nullptr;
    bool publishing = false;
    std::string serviceName;  // the name published (or being published)
    std::uint16_t port = 0;
    std::map<std::string, int> instances;  // by name: interface and protocol pairs announcing it
    std::map<std::string, Resolving> resolving;
    std::set<std::string> listed;
    std::shared_ptr<std::atomic<bool>> alive = std::make_shared<std::atomic<bool>>(true);

    // Runs `fn` on the main queue unless the discovery is gone by then.
    void post(std::function<void(Impl&)> fn) {
        MainQueue::shared().post([this, alive = alive, fn = std::move(fn)] {
            if (alive->load()) fn(*this);
        });
    }
    void fail(const Error& error) {
        post([error](Impl& self) {
            if (self.events.failed) self.events.failed(error);
        });
    }

    // The rest runs on Avahi's thread, or with its lock held.
    void createServices(AvahiClient* c) {
        if (!publishing) return;
        if (!group) group = avahi_entry_group_new(c, &Impl::groupCallback, this);
        if (!group) {
            fail(discoveryError(avahi_client_errno(c), "cannot publish"));
            return;
        }
        if (!avahi_entry_group_is_empty(group)) return;
        while (true) {
            int rc = avahi_entry_group_add_service(
                group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                serviceName.c_str(), avahiServiceType().c_str(), nullptr, nullptr, port, nullptr);
            if (rc == AVAHI_ERR_COLLISION) {
                rename();
                continue;
            }
            if (rc == AVAHI_OK) rc = avahi_entry_group_commit(group);
            if (rc != AVAHI_OK) fail(discoveryError(rc, "cannot publish " + serviceName));
            return;
        }
    }
    void rename() {
        char* next = avahi_alternative_service_name(serviceName.c_str());
        serviceName = next;
        avahi_free(next);
    }
    void resetResolving(const std::string& name) {
        auto it = resolving.find(name);
        if (it == resolving.end()) return;
        if (it->second.resolver) avahi_service_resolver_free(it->second.resolver);
        if (it->second.timeout) avahi_threaded_poll_get(poll)->timeout_free(it->second.timeout);
        resolving.erase(it);
    }
    void clearBrowsing() {
        while (!resolving.empty()) resetResolving(resolving.begin()->first);
        if (browser) avahi_service_browser_free(browser);
        browser = nullptr;
        instances.clear();
        listed.clear();
    }

    static void clientCallback(AvahiClient* c, AvahiClientState state, void* userdata) {
        auto* self = static_cast<Impl*>(userdata);
        switch (state) {
            case AVAHI_CLIENT_S_RUNNING:
                self->createServices(c);
                break;
            case AVAHI_CLIENT_S_COLLISION:
            case AVAHI_CLIENT_S_REGISTERING:
                // The host name is being settled: publish again once it is.
                if (self->group) avahi_entry_group_reset(self->group);
                break;
            case AVAHI_CLIENT_FAILURE:
                self->fail(discoveryError(avahi_client_errno(c), "the Avahi daemon went away"));
                break;
            default:
                break;
        }
    }

    static void groupCallback(AvahiEntryGroup* g, AvahiEntryGroupState state, void* userdata) {
        auto* self = static_cast<Impl*>(userdata);
        self->group = g;
        switch (state) {
            case AVAHI_ENTRY_GROUP_ESTABLISHED:
                self->post([name = self->serviceName](Impl& me) {
                    if (me.events.published) me.events.published(name);
                });
                break;
            case AVAHI_ENTRY_GROUP_COLLISION:
                // Another machine has the name: take the next one.
                self->rename();
                avahi_entry_group_reset(g);
                self->createServices(avahi_entry_group_get_client(g));
                break;
            case AVAHI_ENTRY_GROUP_FAILURE:
                self->fail(discoveryError(avahi_client_errno(avahi_entry_group_get_client(g)),
                                          "cannot publish " + self->serviceName));
                break;
            default:
                break;
        }
    }

    static void browseCallback(AvahiServiceBrowser* b, AvahiIfIndex interface,
                               AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                               const char* type, const char* domain, AvahiLookupResultFlags,
                               void* userdata) {
        auto* self = static_cast<Impl*>(userdata);
        switch (event) {
            case AVAHI_BROWSER_NEW: {
                std::string n = name;
                if (self->publishing && n == self->serviceName) return;  // our own
                ++self->instances[n];
                if (self->listed.contains(n) || self->resolving.contains(n)) return;
                auto* resolver = avahi_service_resolver_new(
                    avahi_service_browser_get_client(b), interface, protocol, name, type, domain,
                    AVAHI_PROTO_UNSPEC, AvahiLookupFlags(0), &Impl::resolveCallback, self);
                if (!resolver) return;
                struct timeval tv {};
                avahi_elapse_time(&tv, static_cast<unsigned>(kResolveTimeout * 1000), 0);
                auto& entry = self->resolving[n];
                entry.resolver = resolver;
                entry.key = std::make_unique<std::pair<Impl*, std::string>>(self, n);
                const AvahiPoll* api = avahi_threaded_poll_get(self->poll);
                entry.timeout = api->timeout_new(api, &tv, &Impl::resolveTimedOut, entry.key.get());
                break;
            }
            case AVAHI_BROWSER_REMOVE: {
                std::string n = name;
                auto it = self->instances.find(n);
                if (it == self->instances.end() || --it->second > 0) return;
                self->instances.erase(it);
                self->resetResolving(n);
                if (self->listed.erase(n))
                    self->post([n](Impl& me) {
                        if (me.events.serviceLost) me.events.serviceLost(n);
                    });
                break;
            }
            case AVAHI_BROWSER_FAILURE:
                self->fail(discoveryError(avahi_client_errno(avahi_service_browser_get_client(b)),
                                          "browsing failed"));
                break;
            default:
                break;
        }
    }

    static void resolveCallback(AvahiServiceResolver* r, AvahiIfIndex interface, AvahiProtocol,
                                AvahiResolverEvent event, const char* name, const char*,
                                const char*, const char* hostName, const AvahiAddress* address,
                                uint16_t port, AvahiStringList*, AvahiLookupResultFlags,
                                void* userdata) {
        auto* self = static_cast<Impl*>(userdata);
        std::string n = name;
        auto it = self->resolving.find(n);
        if (it == self->resolving.end() || it->second.resolver != r) return;
        self->resetResolving(n);  // frees r
        if (event != AVAHI_RESOLVER_FOUND || !self->instances.contains(n)) return;
        NearbyService service;
        service.name = n;
        service.hostName = hostName ? hostName : "";
        char text[AVAHI_ADDRESS_STR_MAX] = {};
        avahi_address_snprint(text, sizeof text, address);
        asio::error_code ec;
        auto ip = asio::ip::make_address(text, ec);
        if (!ec) {
            if (ip.is_v6() && ip.to_v6().is_link_local()) {
                auto v6 = ip.to_v6();
                v6.scope_id(static_cast<unsigned long>(interface));
                ip = v6;
            }
            service.addresses.emplace_back(ip, port);
        }
        self->listed.insert(n);
        self->post([service](Impl& me) {
            if (me.events.serviceFound) me.events.serviceFound(service);
        });
    }

    static void resolveTimedOut(AvahiTimeout* timeout, void* userdata) {
        auto* key = static_cast<std::pair<Impl*, std::string>*>(userdata);
        auto* self = key->first;
        std::string name = key->second;  // the entry owning `key` goes below
        auto it = self->resolving.find(name);
        if (it == self->resolving.end() || it->second.timeout != timeout) return;
        // Not listed: a later announcement of the name resolves afresh.
        self->resetResolving(name);
    }
};

Result<std::unique_ptr<NearbyDiscovery>> NearbyDiscovery::create(Events events) {
    auto impl = std::make_unique<Impl>();
    impl->events = std::move(events);
    impl->poll = avahi_threaded_poll_new();
    if (!impl->poll) return std::unexpected(discoveryError(AVAHI_ERR_NO_MEMORY, "cannot start"));
    int error = 0;
    impl->client = avahi_client_new(avahi_threaded_poll_get(impl->poll), AvahiClientFlags(0),
                                    &Impl::clientCallback, impl.get(), &error);
    if (!impl->client) {
        avahi_threaded_poll_free(impl->poll);
        return std::unexpected(
            discoveryError(error, "no Avahi daemon can be reached (is avahi-daemon running?)"));
    }
    if (avahi_threaded_poll_start(impl->poll) < 0) {
        avahi_client_free(impl->client);
        avahi_threaded_poll_free(impl->poll);
        return std::unexpected(discoveryError(AVAHI_ERR_FAILURE, "cannot start"));
    }
    return std::unique_ptr<NearbyDiscovery>(new NearbyDiscovery(std::move(impl)));
}

NearbyDiscovery::NearbyDiscovery(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

NearbyDiscovery::~NearbyDiscovery() {
    impl_->alive->store(false);
    avahi_threaded_poll_stop(impl_->poll);
    impl_->clearBrowsing();
    if (impl_->group) avahi_entry_group_free(impl_->group);
    avahi_client_free(impl_->client);
    avahi_threaded_poll_free(impl_->poll);
}

Status NearbyDiscovery::publish(const std::string& displayName, std::uint16_t port) {
    avahi_threaded_poll_lock(impl_->poll);
    if (impl_->group) avahi_entry_group_reset(impl_->group);
    impl_->publishing = true;
    impl_->serviceName = fittingServiceName(displayName);
    impl_->port = port;
    if (avahi_client_get_state(impl_->client) == AVAHI_CLIENT_S_RUNNING)
        impl_->createServices(impl_->client);
    avahi_threaded_poll_unlock(impl_->poll);
    return {};
}

void NearbyDiscovery::stopPublishing() {
    avahi_threaded_poll_lock(impl_->poll);
    impl_->publishing = false;
    if (impl_->group) avahi_entry_group_free(impl_->group);
    impl_->group = nullptr;
    avahi_threaded_poll_unlock(impl_->poll);
}

Status NearbyDiscovery::browse() {
    avahi_threaded_poll_lock(impl_->poll);
    Status result;
    if (!impl_->browser) {
        impl_->browser = avahi_service_browser_new(
            impl_->client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, avahiServiceType().c_str(), nullptr,
            AvahiLookupFlags(0), &Impl::browseCallback, impl_.get());
        if (!impl_->browser)
            result =
                std::unexpected(discoveryError(avahi_client_errno(impl_->client), "cannot browse"));
    }
    avahi_threaded_poll_unlock(impl_->poll);
    return result;
}

void NearbyDiscovery::stopBrowsing() {
    avahi_threaded_poll_lock(impl_->poll);
    impl_->clearBrowsing();
    avahi_threaded_poll_unlock(impl_->poll);
}

}  // namespace quillon
