#include "app/CommandLineOptions.h"

#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>

#include <exception>
#include <iostream>

namespace quarvel {

namespace po = boost::program_options;
using morvik::pellum::log::Severity;

CommandLineOptions::CommandLineOptions(const std::vector<std::string>& args)
    : morvik::pellum::log::Logger("CommandLineOptions", std::string(),
                                  std::make_shared<morvik::pellum::log::LoggerImpl>()),
      mDescription("Supported Options", po::options_description::m_default_line_length,
                   po::options_description::m_default_line_length / 2) {
    // "data-rate" is parsed as a character: the stored number is that character's code.
    mDescription.add_options()                                                            //
        ("file", po::value<std::string>(), "save the recorded data to the provided file") //
        ("src-addr", po::value<uint32_t>(),
         "address at which the recorder starts to write, default is 0") //
        ("data-rate", po::value<uint8_t>(),
         "N in formula: used percentage of full speed = 100 - (N * 6.25), default 0 (full data "
         "rate)")                                                          //
        ("data-bytes", po::value<uint32_t>(), "Number of bytes to record") //
        ("conf", po::value<std::string>(), "Configuration scheme name")    //
        ("rec-dev", po::value<std::string>(), "Path to the recorder device, e.g. /dev/myrecorder");

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

    if (values.count("file") == 0) {
        mError = true;
        std::cerr << "no file argument provided but required" << '\n';
    } else {
        mFile = values["file"].as<std::string>();
    }
    if (values.count("src-addr") != 0) {
        mSrcAddr = values["src-addr"].as<uint32_t>();
    }
    if (values.count("data-rate") != 0) {
        mDataRate = values["data-rate"].as<uint8_t>();
    }
    if (values.count("data-bytes") != 0) {
        mDataBytes = values["data-bytes"].as<uint32_t>();
    } else {
        mError = true;
        std::cerr << "no data-bytes argument provided but required" << '\n';
    }
    if (values.count("conf") == 0) {
        mError = true;
        std::cerr << "no configuration name provided, but required" << '\n';
    } else {
        mConf = values["conf"].as<std::string>();
    }
    if (values.count("rec-dev") != 0) {
        mRecDev = values["rec-dev"].as<std::string>();
    } else {
        mError = true;
        std::cerr << "no recorder device provided" << '\n';
    }
}

void CommandLineOptions::printHelp() const {
    std::cout << mDescription << std::endl;
}

} // namespace quarvel
