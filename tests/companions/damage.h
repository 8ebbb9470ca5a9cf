// Damaged variants of a text, the same ones on every machine.

#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tsbackup::test {

class Damage {
  public:
    explicit Damage(std::uint32_t seed) : random_(seed) {}

    /// The text with a few pieces cut, doubled, overwritten, or replaced by what breaks parsers and terminals.
    std::string damaged(std::string text) {
        for (std::size_t steps = 1 + below(6); steps > 0; --steps)
            text = damaged_once(std::move(text));
        return text;
    }

  private:
    std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }

    std::string damaged_once(std::string text) {
        static const std::vector<std::string> kPieces = {"\033[2J\033]0;title\a",
                                                         "\n",
                                                         "\r\n",
                                                         "!!",
                                                         "\xff\xfe",
                                                         "\xc3",
                                                         "\xe2\x80\xae",
                                                         std::string(1, '\0'),
                                                         "-1",
                                                         "99999999999999999999",
                                                         "log:\n",
                                                         "name: ",
                                                         "<",
                                                         "</",
                                                         "<![CDATA[",
                                                         "<!--",
                                                         "&x;",
                                                         "&#0;",
                                                         "]]>",
                                                         std::string(5000, 'A'),
                                                         "\u0301\u0301\u0301",
                                                         "\t",
                                                         "\"",
                                                         "\\",
                                                         "%s%n",
                                                         "..",
                                                         "nan",
                                                         "1e999"};
        const std::size_t at = below(text.size() + 1);
        const std::size_t length = below(text.size() - at + 1);
        switch (below(6)) {
        case 0:
            return text.substr(0, at);
        case 1:
            return text.erase(at, length);
        case 2:
            return text.insert(at, kPieces[below(kPieces.size())]);
        case 3:
            return text.replace(at, below(8), kPieces[below(kPieces.size())]);
        case 4:
            return text.insert(at, text.substr(at, length));
        default:
            if (at < text.size()) text[at] = static_cast<char>(below(256));
            return text;
        }
    }

    std::mt19937 random_; ///< gives the same numbers everywhere
};

} // namespace tsbackup::test
