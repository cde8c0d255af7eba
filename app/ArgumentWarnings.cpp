#include "app/ArgumentWarnings.h"

#include "app/CommandLineOptions.h"

#include <boost/lexical_cast.hpp>
#include <boost/program_options/parsers.hpp>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <ostream>

namespace quarvel {

namespace po = boost::program_options;

namespace {

// Edits (insertions, deletions, substitutions) that turn a into b.
size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
        }
    }
    return d[a.size()][b.size()];
}

// The one name nearest to what the word names: a prefix either way counts as nearest, else
// up to two edits. Empty when none is near or several are.
std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    std::string given = word.substr(std::min(word.find_first_not_of('-'), word.size()));
    given = given.substr(0, given.find('='));
    std::transform(given.begin(), given.end(), given.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    size_t best = 2;
    std::vector<std::string> found;
    for (const auto& name : names) {
        const bool prefix = name.rfind(given, 0) == 0 || given.rfind(name, 0) == 0;
        const size_t distance = prefix ? 0 : editDistance(given, name);
        if (distance > best) {
            continue;
        }
        if (distance < best) {
            found.clear();
            best = distance;
        }
        found.push_back(name);
    }
    return found.size() == 1 ? found.front() : std::string();
}

} // namespace

void warnAboutArguments(const std::vector<std::string>& args, const std::vector<std::string>& known,
                        std::ostream& out) {
    const po::options_description list = CommandLineOptions::optionList();
    std::vector<po::option> parsed;
    try {
        parsed = po::command_line_parser(args).options(list).allow_unregistered().run().options;
    } catch (const std::exception&) {
        return; // the option parser reports why it cannot read the words
    }
    std::vector<std::string> names = known;
    for (const auto& option : list.options()) {
        names.push_back(option->long_name());
    }
    for (const auto& option : parsed) {
        const std::string& word = option.original_tokens.front();
        if (option.unregistered) {
            if (std::find(known.begin(), known.end(), option.string_key) != known.end()) {
                continue; // the framework's own, left over: a --log-level without its value
            }
            const std::string meant = nearest(word, names);
            out << "quarvel: ignoring unknown option '" << word << "'"
                << (meant.empty() ? "" : " (did you mean --" + meant + "?)") << std::endl;
        } else if ((option.string_key == "data-bytes" || option.string_key == "src-addr") &&
                   option.value.size() == 1 && option.value.front().rfind('-', 0) == 0) {
            uint32_t read = 0;
            if (boost::conversion::try_lexical_convert(option.value.front(), read)) {
                out << "quarvel: --" << option.string_key << '=' << option.value.front()
                    << " is read as " << read << std::endl;
            }
        }
    }
}

} // namespace quarvel
