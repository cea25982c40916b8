#pragma once

#include <memory>
#include <string>
#include <vector>

namespace veltrane::test {

// A named network namespace ("vt-" and random hex) that lives exactly as long
// as this object. Everything that changes interfaces, addresses, routes or
// packet rules in a test belongs in one of these, never in the machine's own
// namespace.
//
//   std::string whyNot;
//   auto ns = NetNamespace::create(whyNot);
//   if (!ns) {
//       GTEST_SKIP() << whyNot;           // not root, or no namespaces here
//   }
//   ns->must("ip link set lo up");         // shell command inside (ip netns exec)
//   ns->addVeth("a0", *other, "b0");       // veth pair: a0 here, b0 in `other`
//
//   {
//       auto inside = ns->enter();         // this thread is now in the namespace
//       ASSERT_TRUE(inside.ok());
//       ...                                // sockets made now belong to it for good
//   }                                      // back where the thread was
//
//   std::thread pool([&] {                 // a queue whose handlers make
//       auto inside = ns->enter();         // sockets inside the namespace
//       io.run();
//   });
//
// A socket belongs to the namespace of the thread that created it, whatever
// thread uses it later. The destructor deletes the links made by addVeth()
// (which also removes the far end in the other namespace), then the namespace
// with whatever was made inside it. Links that run() made vanish with it.
class NetNamespace {
public:
    struct Result {
        int status = -1;
        std::string output; // stdout and stderr together

        bool ok() const { return status == 0; }
    };

    // Restores the thread's namespace when it goes away.
    class Entered {
    public:
        Entered(Entered&& other) noexcept;
        Entered& operator=(Entered&&) = delete;
        ~Entered();
        bool ok() const { return ok_; }

    private:
        friend class NetNamespace;
        explicit Entered(int namespaceFd);
        int originalFd_ = -1;
        bool ok_ = false;
    };

    // Null, with the reason in `whyNot`, where namespaces cannot be made.
    static std::unique_ptr<NetNamespace> create(std::string& whyNot);

    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    const std::string& name() const { return name_; }

    // Runs `command` under /bin/sh inside the namespace.
    Result run(const std::string& command) const;
    // run() that records a test failure, with the output, unless it succeeds.
    bool must(const std::string& command) const;

    // A veth pair: `localName` in this namespace, `peerName` in `peer`
    // (which may be this one). Neither end is brought up.
    bool addVeth(const std::string& localName, const NetNamespace& peer,
                 const std::string& peerName);

    // The calling thread joins the namespace until the result goes away.
    [[nodiscard]] Entered enter() const;

private:
    NetNamespace(std::string name, int fd);

    std::string name_;
    int fd_ = -1;
    std::vector<std::string> links_;
};

} // namespace veltrane::test
