#pragma once

#include "dataflow/AbstractDataSink.h"
#include "dataflow/AbstractDataSource.h"

#include <memory>
#include <string>
#include <vector>

namespace quarvel {

// One element of a chain, seen as source, sink or both.
class DataSinkOrSource {
public:
    DataSinkOrSource(std::shared_ptr<AbstractDataSource> source,
                     std::shared_ptr<AbstractDataSink> sink, std::string name);

    bool isSource() const { return static_cast<bool>(mSource); }
    bool isSink() const { return static_cast<bool>(mSink); }
    std::shared_ptr<AbstractDataSource> getSource() const;
    std::shared_ptr<AbstractDataSink> getSink() const;
    std::string name() const { return mName; }

private:
    std::shared_ptr<AbstractDataSource> mSource;
    std::shared_ptr<AbstractDataSink> mSink;
    std::string mName;
};

using Chain = std::vector<std::shared_ptr<DataSinkOrSource>>;

} // namespace quarvel
