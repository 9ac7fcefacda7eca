#pragma once

// What somebody may have meant who mistyped a word.

#include <string>
#include <string_view>
#include <vector>

namespace zr {

// The word of `known` that is nearest to `word`, by how many characters are to be put in, left out, replaced or
// swapped; empty when none is near. Letter case of ASCII does not count.
std::string nearest(std::string_view word, const std::vector<std::string>& known);

// "; did you mean 'list'?", or nothing.
std::string did_you_mean(std::string_view word, const std::vector<std::string>& known);

}  // namespace zr
