#pragma once

#include "platform/Logger.h"

#include <boost/program_options/options_description.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace quarvel {

// The six values of a run, parsed from the argument list. Construction never throws on bad
// input: problems are reported on standard error or in the log and hasError() turns true.
class CommandLineOptions : public virtual morvik::pellum::log::Logger {
public:
    explicit CommandLineOptions(const std::vector<std::string>& args);

    bool hasError() const { return mError; }
    std::string getFile() const { return mFile; }
    std::string getConf() const { return mConf; }
    std::string getRecDev() const { return mRecDev; }
    uint32_t getSrcAddr() const { return mSrcAddr; }
    uint32_t getDataBytes() const { return mDataBytes; }
    uint8_t getDataRate() const { return mDataRate; }

    void printHelp() const;
    // The options as printHelp() lists them, for those who need the list without a parse.
    static boost::program_options::options_description optionList();

private:
    void parse(const std::vector<std::string>& args);

    bool mError = false;
    std::string mFile;
    uint32_t mDataBytes = 0;
    uint32_t mSrcAddr = 0;
    uint8_t mDataRate = 0;
    std::string mRecDev;
    std::string mConf;
    boost::program_options::options_description mDescription;
};

} // namespace quarvel
