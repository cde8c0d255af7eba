#include "dataflow/DataSinkOrSource.h"

#include <stdexcept>

namespace quarvel {

DataSinkOrSource::DataSinkOrSource(std::shared_ptr<AbstractDataSource> source,
                                   std::shared_ptr<AbstractDataSink> sink, std::string name)
    : mSource(std::move(source)), mSink(std::move(sink)), mName(std::move(name)) {}

std::shared_ptr<AbstractDataSource> DataSinkOrSource::getSource() const {
    if (!mSource) {
        throw std::runtime_error("Is not a source");
    }
    return mSource;
}

std::shared_ptr<AbstractDataSink> DataSinkOrSource::getSink() const {
    if (!mSink) {
        throw std::runtime_error("Is not a sink");
    }
    return mSink;
}

} // namespace quarvel
