// Resolver: the names the library can resolve while one lives, in place of the network. Numeric addresses resolve to
// themselves; a name nobody added is EAI_NONAME.
//
//   support::Resolver resolver;
//   resolver.add("cloud.example", {"127.0.0.1", "::1"});
//   resolver.fail("down.example", EAI_AGAIN);
//   resolver.add("nothing.example", {});          // success with an empty list
//   EXPECT_EQ(resolver.calls("cloud.example"), 1);
#ifndef TESTS_SUPPORT_RESOLVER_H
#define TESTS_SUPPORT_RESOLVER_H

#include <map>
#include <string>
#include <vector>

#include <netdb.h>

namespace support {

class Resolver {
  public:
    Resolver();
    ~Resolver();
    Resolver(const Resolver &) = delete;
    Resolver &operator=(const Resolver &) = delete;

    void add(const std::string &name, const std::vector<std::string> &addresses, const std::string &canonical = "");
    void fail(const std::string &name, int code);

    int calls() const { return static_cast<int>(asked_.size()); }
    int calls(const std::string &name) const;
    const std::vector<std::string> &asked() const { return asked_; }  // the names, as they were asked for
    void forget_asked() { std::vector<std::string>().swap(asked_); }
    static int lists_alive();  // handed out and not released yet

    // For the fakes.
    static Resolver *in_force();
    int resolve(const char *name, addrinfo **list);
    static bool release(addrinfo *list);  // false: not one of its lists

  private:
    struct Answer {
        int code = 0;
        std::vector<std::string> addresses;
        std::string canonical;
    };
    std::map<std::string, Answer> answers_;
    std::vector<std::string> asked_;
};

}  // namespace support

#endif
