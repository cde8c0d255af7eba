// Helper of bench/run, on a file of little-endian int32 values as the sink receives them:
//   quarvel_bench zlib|libdeflate VALUES   level 6 on one core | on all cores: seconds, bytes out
//   quarvel_bench sink VALUES FILE WORKERS SinkHDF5 alone: seconds
#include "sinks/SinkHDF5.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

static constexpr size_t kChunk = 16384; // bytes, as in the file

// Each thread takes every n-th chunk, in the big-endian form that the file stores.
static size_t compressChunks(const std::vector<uint8_t>& data, bool zlib) {
    const size_t threads = zlib ? 1 : std::max(1u, std::thread::hardware_concurrency());
    std::atomic<size_t> total{0};
    std::vector<std::thread> pool;
    for (size_t t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            libdeflate_compressor* compressor = zlib ? nullptr : libdeflate_alloc_compressor(6);
            std::vector<uint8_t> out(2 * kChunk);
            for (size_t at = t * kChunk; at < data.size(); at += threads * kChunk) {
                const size_t in = std::min(kChunk, data.size() - at);
                uLongf length = out.size();
                if (zlib) { // as HDF5's deflate filter calls it
                    compress2(out.data(), &length, data.data() + at, in, 6);
                } else {
                    length = libdeflate_zlib_compress(compressor, data.data() + at, in, out.data(),
                                                      out.size());
                }
                total += length;
            }
            libdeflate_free_compressor(compressor);
        });
    }
    for (auto& thread : pool) {
        thread.join();
    }
    return total;
}

int main(int argc, char** argv) {
    const std::string mode = argc > 2 ? argv[1] : "";
    std::ifstream file(argc > 2 ? argv[2] : "", std::ios::binary | std::ios::ate);
    std::vector<uint8_t> data(file ? static_cast<size_t>(file.tellg()) : 0);
    file.seekg(0).read(reinterpret_cast<char*>(data.data()),
                       static_cast<std::streamsize>(data.size()));
    if (!file || (mode != "zlib" && mode != "libdeflate" && !(mode == "sink" && argc == 5))) {
        std::fprintf(stderr, "usage: quarvel_bench zlib|libdeflate VALUES | "
                             "sink VALUES FILE WORKERS (VALUES: a readable file)\n");
        return 1;
    }
    for (size_t i = 0; mode != "sink" && i + 3 < data.size(); i += 4) {
        std::swap(data[i], data[i + 3]); // to big-endian
        std::swap(data[i + 1], data[i + 2]);
    }
    const auto start = std::chrono::steady_clock::now();
    size_t out = 0;
    try {
        if (mode == "sink") {
            quarvel::SinkHDF5 sink(argv[3], quarvel::SinkHDF5::kDefaultMetadataCacheBytes,
                                   static_cast<unsigned>(std::stoul(argv[4])));
            sink.open(static_cast<uint32_t>(data.size()));
            for (size_t at = 0; at < data.size();) { // 128 KiB at a time
                const size_t length = std::min<size_t>(128 * 1024, data.size() - at);
                at += sink.write(data.data() + at, static_cast<uint32_t>(length));
            }
            sink.close();
        } else {
            out = compressChunks(data, mode == "zlib");
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quarvel_bench: %s\n", e.what());
        return 2;
    } catch (...) { // H5::Exception is no std::exception
        std::fprintf(stderr, "quarvel_bench: HDF5 failed\n");
        return 2;
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::printf("%.6f %zu\n", seconds.count(), out);
}
