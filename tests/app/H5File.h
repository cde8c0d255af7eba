#pragma once

#include <H5Cpp.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quarvel::test {

// What an independent reader sees in a recording.
struct Recording {
    hsize_t length = 0;
    hsize_t maxLength = 0;
    hsize_t chunk = 0;
    bool bigEndian = false;
    bool signedInt = false;
    size_t typeSize = 0;
    int deflateLevel = -1; // -1: no deflate filter
    std::vector<int32_t> values;
};

inline Recording readRecording(const std::string& path) {
    H5::Exception::dontPrint();
    Recording r;
    H5::H5File file(path, H5F_ACC_RDONLY);
    H5::DataSet dataset = file.openDataSet("quarvel");
    H5::DataSpace space = dataset.getSpace();
    space.getSimpleExtentDims(&r.length, &r.maxLength);
    const H5::IntType type = dataset.getIntType();
    r.bigEndian = type.getOrder() == H5T_ORDER_BE;
    r.signedInt = type.getSign() == H5T_SGN_2;
    r.typeSize = type.getSize();
    const H5::DSetCreatPropList plist = dataset.getCreatePlist();
    if (plist.getLayout() == H5D_CHUNKED) {
        plist.getChunk(1, &r.chunk);
    }
    for (int i = 0; i < plist.getNfilters(); ++i) {
        unsigned flags = 0;
        size_t count = 1;
        unsigned level = 0;
        char name[64];
        unsigned config = 0;
        if (plist.getFilter(i, flags, count, &level, sizeof name, name, config) ==
            H5Z_FILTER_DEFLATE) {
            r.deflateLevel = static_cast<int>(level);
        }
    }
    r.values.resize(r.length);
    if (r.length > 0) {
        dataset.read(r.values.data(), H5::PredType::NATIVE_INT32);
    }
    return r;
}

// The sample that the Tavo decoder makes of the mock recorder's k-th counter word.
inline int32_t mockSample(uint32_t k) {
    const auto raw =
        static_cast<int16_t>(static_cast<uint16_t>(((k & 0xFF) << 8) | ((k >> 8) & 0xFF)));
    return raw >> 2;
}

} // namespace quarvel::test
