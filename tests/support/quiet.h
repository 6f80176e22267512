// Quiet: while one lives, this thread's calls are the support's own. No fault strikes them, nobody counts them and they
// see the real clock. Every function of the support that talks to the system holds one; a test that plays the peer by
// hand does the same:
//
//   { const support::Quiet quiet; ::send(peer, "x", 1, 0); }
#ifndef TESTS_SUPPORT_QUIET_H
#define TESTS_SUPPORT_QUIET_H

namespace support {

class Quiet {
  public:
    // The optimiser knows malloc and its like, and believes that they look at nothing of ours: it would drop the depth
    // around them as never read.
    Quiet() {
        ++depth;
        keep();
    }
    ~Quiet() {
        keep();
        --depth;
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

    static bool here() { return depth > 0; }

  private:
    static void keep() { asm volatile("" : : "g"(&depth) : "memory"); }

    static inline thread_local int depth = 0;
};

}  // namespace support

#endif
