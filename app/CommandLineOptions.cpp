#include "app/CommandLineOptions.h"

#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>

#include <exception>
#include <iostream>

namespace quarvel {

namespace po = boost::program_options;
using morvik::pellum::log::Severity;

namespace {

// Copies an option's value into field when it was given.
template <typename T> bool take(const po::variables_map& values, const char* name, T& field) {
    if (values.count(name) == 0) {
        return false;
    }
    field = values[name].as<T>();
    return true;
}

} // namespace

CommandLineOptions::CommandLineOptions(const std::vector<std::string>& args)
    : morvik::pellum::log::Logger(makeLogger("CommandLineOptions")), mDescription(optionList()) {
    try {
        parse(args);
    } catch (const std::exception& e) {
        pellumDoLog(Severity::Error, "Parsing command line options failed with '%s'", {}, e.what());
        mError = true;
    } catch (...) {
        pellumDoLog(Severity::Error, "unknown exception thrown", {});
        mError = true;
    }
}

void CommandLineOptions::parse(const std::vector<std::string>& args) {
    po::variables_map values;
    po::store(po::command_line_parser(args).options(mDescription).allow_unregistered().run(),
              values);
    po::notify(values);

    // The required ones are reported in this order, each on its own line.
    const auto missing = [this](const char* message) {
        mError = true;
        std::cerr << message << '\n';
    };
    // An empty name would record into a hidden ".part" of the working directory.
    if (!take(values, "file", mFile) || mFile.empty()) {
        missing("no file argument provided but required");
    }
    take(values, "src-addr", mSrcAddr);
    take(values, "data-rate", mDataRate);
    if (!take(values, "data-bytes", mDataBytes)) {
        missing("no data-bytes argument provided but required");
    }
    if (!take(values, "conf", mConf)) {
        missing("no configuration name provided, but required");
    }
    if (!take(values, "rec-dev", mRecDev)) {
        missing("no recorder device provided");
    }
}

po::options_description CommandLineOptions::optionList() {
    po::options_description list("Supported Options",
                                 po::options_description::m_default_line_length,
                                 po::options_description::m_default_line_length / 2);
    // "data-rate" is parsed as a character: the stored number is that character's code.
    list.add_options()                                                                    //
        ("file", po::value<std::string>(), "save the recorded data to the provided file") //
        ("src-addr", po::value<uint32_t>(),
         "address at which the recorder starts to write, default is 0") //
        ("data-rate", po::value<uint8_t>(),
         "N in formula: used percentage of full speed = 100 - (N * 6.25), default 0 (full data "
         "rate)")                                                          //
        ("data-bytes", po::value<uint32_t>(), "Number of bytes to record") //
        ("conf", po::value<std::string>(), "Configuration scheme name")    //
        ("rec-dev", po::value<std::string>(), "Path to the recorder device, e.g. /dev/myrecorder");
    return list;
}

void CommandLineOptions::printHelp() const {
    std::cout << mDescription << std::endl;
}

} // namespace quarvel
