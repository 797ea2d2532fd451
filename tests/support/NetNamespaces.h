#pragma once
// A small network of a test's own, made of Linux network namespaces: a "lan" namespace whose
// bridge holds the first address of a /24, and hosts in namespaces of their own, each joined to
// the bridge by a veth pair created right inside the two namespaces. No interface, address or
// packet ever reaches the machine's own network. The destructor ends what runs inside and removes
// the namespaces, also when a test fails; namespaces left by a program that died are removed by
// the next one.

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quillon::test {

class NetLab {
  public:
    // The lab on `net` ("10.213.77", a /24), or nullptr with the reason when this machine cannot
    // make network namespaces (not root, no `ip`, a kernel without them).
    static std::unique_ptr<NetLab> create(const std::string& net, std::string* whyNot);
    ~NetLab();
    NetLab(const NetLab&) = delete;
    NetLab& operator=(const NetLab&) = delete;

    const std::string& lan() const { return lan_; }
    // net + "." + host
    std::string address(int host) const { return net_ + "." + std::to_string(host); }
    // A new host namespace with these addresses (last numbers) on its "eth0"; its name, or empty
    // with the reason.
    std::string addHost(const std::vector<int>& hosts, std::string* whyNot);
    // Moves a host's address: removes `from`, adds `to`.
    bool moveAddress(const std::string& ns, int from, int to);
    // argv to be run inside the namespace.
    static std::vector<std::string> inside(const std::string& ns, std::vector<std::string> argv);
    // Runs `work` on a thread of its own that has entered the namespace, and waits for it.
    static bool runInside(const std::string& ns, const std::function<void()>& work);
    // Moves the calling thread into the namespace (for threads that live there).
    static bool enter(const std::string& ns);

  private:
    NetLab(std::string net, std::string tag);
    bool ip(const std::vector<std::string>& args, std::string* whyNot = nullptr);

    std::string net_, tag_, lan_;
    std::vector<std::string> namespaces_;
    int nextLink_ = 0;
};

}  // namespace quillon::test
