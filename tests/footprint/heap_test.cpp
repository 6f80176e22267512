// What a tunnel costs in memory and descriptors. The figures are printed for docs/footprint.md.
#include <cinttypes>
#include <cstdio>
#include <list>

#include "tests/footprint/blocks.h"
#include "tests/whole/module_process.h"

namespace {

constexpr int64_t kOwnAtMost = 1024;  // bytes of the library's own for one open tunnel that idles

class HeapTest : public ModuleProcess {
  protected:
    HeapTest() { cloudmgr_debug_level = 0; }  // no message is kept

    static void print(const char *what, int64_t figure, const char *unit) {
        std::printf("footprint: %s: %" PRId64 " %s\n", what, figure, unit);
    }
    struct Cost {
        footprint::Blocks heap;
        int descriptors = 0;
    };
    // An open tunnel, all counted that came up since the library heard of the model.
    Cost open_tunnel(Wire wire, const std::string &model) {
        const footprint::Blocks before = footprint::blocks();
        const int descriptors_before = support::open_descriptors();
        Tunnel &tunnel = open_.emplace_back(offer_and_start(wire, model));
        finish(tunnel);
        expect_open(tunnel);
        settle(tunnel.server.get());
        pass_time(60);
        constexpr int kOfTheServer = 2;  // its listener and its end
        return {footprint::blocks() - before, support::open_descriptors() - descriptors_before - kOfTheServer};
    }

  private:
    std::list<Tunnel> open_;
};

TEST_F(HeapTest, an_idle_library_holds_little) {
    const footprint::Blocks idle = footprint::blocks();
    print("heap of an idle library, its own", idle.library.bytes, "bytes");
    EXPECT_GT(idle.library.bytes, 0);
    EXPECT_LE(idle.library.bytes, kOwnAtMost);
}

TEST_F(HeapTest, an_open_plain_tunnel_costs_a_kilobyte_at_most) {
    open_tunnel(Wire::plain, "first");
    const Cost cost = open_tunnel(Wire::plain, "base");
    print("heap of an open plain tunnel, the library's own", cost.heap.library.bytes, "bytes");
    print("blocks of an open plain tunnel, the library's own", cost.heap.library.blocks, "blocks");
    print("heap of an open plain tunnel, OpenSSL's", cost.heap.openssl.bytes, "bytes");
    print("descriptors of an open tunnel", cost.descriptors, "descriptors");
    EXPECT_GT(cost.heap.library.bytes, 0);
    EXPECT_LE(cost.heap.library.bytes, kOwnAtMost);
    EXPECT_EQ(cost.heap.openssl.bytes, 0);
    EXPECT_EQ(cost.heap.others.bytes, 0);
    EXPECT_EQ(cost.descriptors, 1);
}

TEST_F(HeapTest, an_open_tls_tunnel_costs_as_little_of_the_librarys_own) {
    const Cost first = open_tunnel(Wire::tls, "first");
    const Cost cost = open_tunnel(Wire::tls, "base");
    print("heap of an open TLS tunnel, the library's own", cost.heap.library.bytes, "bytes");
    print("heap of the first TLS tunnel of a process, OpenSSL's", first.heap.openssl.bytes, "bytes");
    print("heap of each further TLS tunnel, OpenSSL's", cost.heap.openssl.bytes, "bytes");
    EXPECT_LE(cost.heap.library.bytes, kOwnAtMost);
    EXPECT_GT(cost.heap.openssl.bytes, 0);
    EXPECT_EQ(cost.heap.others.bytes, 0);
    EXPECT_EQ(cost.descriptors, 1);
}

TEST_F(HeapTest, an_idle_library_has_its_event_loop_and_its_daemon_open) {
    EXPECT_GE(g_iCloudClientConnFd, 0);
    daemon.close_link();  // the other end of the link
    const int open = support::open_descriptors();
    release_library();
    ::close(epfd);  // the host's to close
    epfd = -1;
    const int held = open - support::open_descriptors();
    print("descriptors of an idle library", held, "descriptors");
    EXPECT_EQ(held, 2);
}

}  // namespace
