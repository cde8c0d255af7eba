#pragma once

// Reads a recording with HDF5's C API, which shares nothing with the program's writer.

#include <hdf5.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace quarvel::test {

// What a recording holds, as any HDF5 reader sees it.
struct Recording {
    bool opened = false;
    std::map<std::string, std::string> attributes; // numbers in decimal
    uint64_t length = 0;                           // the dataset's dimension
    std::vector<int32_t> values;                   // from index 0, as many as asked for

    uint64_t recorded() const { return std::stoull(attributes.at("recorded_values")); }
};

// Collects one attribute of the dataset as text: a string, or a number in decimal.
inline herr_t readAttribute(hid_t dataset, const char* name, const H5A_info_t*, void* found) {
    const hid_t id = H5Aopen(dataset, name, H5P_DEFAULT);
    const hid_t type = H5Aget_type(id);
    std::string value;
    if (H5Tget_class(type) == H5T_STRING) {
        value.assign(H5Tget_size(type), '\0');
        H5Aread(id, type, value.data());
        value.resize(std::min(value.size(), value.find('\0')));
    } else {
        unsigned long long number = 0;
        H5Aread(id, H5T_NATIVE_ULLONG, &number);
        value = std::to_string(number);
    }
    H5Tclose(type);
    H5Aclose(id);
    (*static_cast<std::map<std::string, std::string>*>(found))[name] = value;
    return 0;
}

constexpr uint64_t kRecordedValues = ~uint64_t{0};

inline void readInto(Recording& recording, const std::string& path, uint64_t maxValues) {
    const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    const hid_t dataset = file < 0 ? -1 : H5Dopen2(file, "quarvel", H5P_DEFAULT);
    if (dataset < 0) {
        H5Fclose(file);
        return;
    }
    H5Aiterate2(dataset, H5_INDEX_NAME, H5_ITER_NATIVE, nullptr, readAttribute,
                &recording.attributes);
    const hid_t space = H5Dget_space(dataset);
    hsize_t length = 0;
    H5Sget_simple_extent_dims(space, &length, nullptr);
    recording.length = length;
    if (maxValues == kRecordedValues && recording.attributes.count("recorded_values") > 0) {
        maxValues = recording.recorded();
    }
    hsize_t count = std::min<hsize_t>(length, maxValues);
    const hsize_t start = 0;
    recording.values.resize(static_cast<size_t>(count));
    recording.opened = true;
    if (count > 0) {
        H5Sselect_hyperslab(space, H5S_SELECT_SET, &start, nullptr, &count, nullptr);
        const hid_t memory = H5Screate_simple(1, &count, nullptr);
        recording.opened = H5Dread(dataset, H5T_NATIVE_INT32, memory, space, H5P_DEFAULT,
                                   recording.values.data()) >= 0;
        H5Sclose(memory);
    }
    H5Sclose(space);
    H5Dclose(dataset);
    H5Fclose(file);
}

// Reads maxValues values at most, by default the recorded ones; HDF5 keeps its complaints about
// a file that cannot be read to itself.
inline Recording readRecording(const std::string& path, uint64_t maxValues = kRecordedValues) {
    Recording recording;
    H5E_BEGIN_TRY {
        readInto(recording, path, maxValues);
    }
    H5E_END_TRY;
    return recording;
}

} // namespace quarvel::test
