#pragma once
// NearbyDiscovery: DNS-SD publishing and browsing of "_nsdnearby._tcp." in the default domain,
// through the Avahi daemon. Avahi's events run on its own thread (a threaded poll) and reach the
// caller on the main queue. Create, use and destroy it on the main thread.

#include <asio.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/Error.h"

namespace quillon {

// A resolved service of a nearby machine.
struct NearbyService {
    std::string name;      // the instance name, "<display name> Wi-Fi"
    std::string hostName;  // "alpha.local"
    // Where to connect; the first one is used. Empty: the service cannot be connected.
    std::vector<asio::ip::tcp::endpoint> addresses;
};

class NearbyDiscovery {
  public:
    static constexpr double kResolveTimeout = 5.0;  // seconds

    struct Events {
        std::function<void(const NearbyService&)> serviceFound;  // resolved, not our own
        std::function<void(const std::string& name)> serviceLost;
        std::function<void(const std::string& name)> published;  // the name actually used
        // Publishing or browsing failed, or the daemon went away.
        std::function<void(const Error&)> failed;
    };

    // Connects to the Avahi daemon; fails with a clear error when none runs.
    [[nodiscard]] static Result<std::unique_ptr<NearbyDiscovery>> create(Events events);
    ~NearbyDiscovery();
    NearbyDiscovery(const NearbyDiscovery&) = delete;
    NearbyDiscovery& operator=(const NearbyDiscovery&) = delete;

    // Publishes "%@ Wi-Fi" of the display name on `port`; a name taken on the network gets
    // Avahi's alternative ("... #2"), reported through `published`.
    [[nodiscard]] Status publish(const std::string& displayName, std::uint16_t port);
    void stopPublishing();
    // Browses for other machines' services; ours is ignored by its name.
    [[nodiscard]] Status browse();
    void stopBrowsing();

    struct Impl;

  private:
    explicit NearbyDiscovery(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace quillon
