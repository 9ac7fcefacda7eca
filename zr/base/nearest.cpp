#include "zr/base/nearest.h"

#include <algorithm>

#include "zr/base/text.h"

namespace zr {
namespace {

std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> steps(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                steps[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = steps[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            steps[i][j] = std::min({replaced, steps[i - 1][j] + 1, steps[i][j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
        }
    }
    return steps[a.size()][b.size()];
}

}  // namespace

std::string nearest(std::string_view word, const std::vector<std::string>& known) {
    constexpr std::size_t kLongest = 64;
    if (word.empty() || word.size() > kLongest) return {};
    const std::string wanted = upper(word);
    std::string best;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const std::string& each : known) {
        const std::string other = upper(each);
        // The beginning of a word is as near as can be.
        const std::size_t steps = wanted.size() > 2 && other.starts_with(wanted) ? 1 : distance(wanted, other);
        if (steps < least) {
            least = steps;
            best = each;
        }
    }
    return best;
}

std::string did_you_mean(std::string_view word, const std::vector<std::string>& known) {
    const std::string meant = nearest(word, known);
    return meant.empty() ? meant : "; did you mean '" + meant + "'?";
}

}  // namespace zr
