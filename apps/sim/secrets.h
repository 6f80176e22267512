// The secrets of a session, and the text that stands for each in a recording.
//
// A secret's letters and digits are replaced and every other character stays: the length is the same, so are the frames
// and records around it, and JSON escapes the text as it would escape the secret.
#pragma once

#include <bitset>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

class Secrets {
  public:
    // learn remembers a secret: from now on it is replaced wherever it stands. One under four bytes is left as it is,
    // since replacing it would spoil what happens to hold the same characters. learn_key is for the upgrade's key,
    // whose accept value is replaced by that of the key's own replacement.
    void learn(std::string_view secret);
    void learn_key(std::string_view key);

    // replace returns the text with every secret replaced.
    [[nodiscard]] std::string replace(std::string_view text) const;

  private:
    struct Pair {
        std::string secret;
        std::string shown;
    };
    void add(std::string_view secret, std::string shown);
    [[nodiscard]] std::string shown_for(std::string_view secret) const;

    std::vector<Pair> pairs_;  // the longest first: a token can be a part of the cookie

    // Whether a secret begins with a prefix: with hundreds of tunnels there are too many to compare at every byte.
    std::bitset<1 << 16> prefixes_;
};

}  // namespace sim
