#include "dataflow/DataSinkOrSource.h"

#include <stdexcept>

namespace quarvel {

DataSinkOrSource::DataSinkOrSource(std::shared_ptr<AbstractDataSource> source_,
                                   std::shared_ptr<AbstractDataSink> sink_, std::string name_)
    : source(std::move(source_)), sink(std::move(sink_)), mName(std::move(name_)) {}

std::shared_ptr<AbstractDataSource> DataSinkOrSource::getSource() const {
    if (!source) {
        throw std::runtime_error("Is not a source");
    }
    return source;
}

std::shared_ptr<AbstractDataSink> DataSinkOrSource::getSink() const {
    if (!sink) {
        throw std::runtime_error("Is not a sink");
    }
    return sink;
}

} // namespace quarvel
