#pragma once

#include "dataflow/AbstractDataSource.h"

#include <string>

namespace quarvel {

class AbstractRecorder : public AbstractDataSource {
public:
    virtual void start() = 0;
    virtual void abort() = 0;
    virtual bool isRunning() = 0;
    virtual bool failed() = 0;
    virtual std::string statusText() = 0;
    virtual void configure(uint32_t srcAddr, uint32_t bytesCount, uint32_t dataRate) = 0;
};

} // namespace quarvel
