#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace quarvel {

// Writes one line to `out` for each word that the option parser would ignore as an unknown
// option, naming the option meant when one alone is close, and one for each --data-bytes or
// --src-addr written with a minus sign, which the parser reads modulo 2^32. `known` are the
// names, without dashes, of the options taken before the parser sees the words.
void warnAboutArguments(const std::vector<std::string>& args, const std::vector<std::string>& known,
                        std::ostream& out);

} // namespace quarvel
