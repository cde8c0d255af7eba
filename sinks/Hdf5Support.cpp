#include "sinks/Hdf5Support.h"

#include <atomic>
#include <cstring>
#include <vector>

namespace quarvel {

QuietHdf5Errors::QuietHdf5Errors() noexcept {
    mSaved = H5Eget_auto2(H5E_DEFAULT, &mPrint, &mData) >= 0;
    if (mSaved) {
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    }
}

QuietHdf5Errors::~QuietHdf5Errors() {
    if (mSaved) {
        H5Eset_auto2(H5E_DEFAULT, mPrint, mData);
    }
}

const char* detailOf(const H5::Exception& error) {
    const char* detail = error.getCDetailMsg();
    return detail != nullptr ? detail : "";
}

std::string reasonOf(const H5::Exception& error, int systemError) {
    return systemError != 0 ? std::strerror(systemError) : detailOf(error);
}

namespace {

bool getMetadataCacheConfig(hid_t file, H5AC_cache_config_t& config) {
    config.version = H5AC__CURR_CACHE_CONFIG_VERSION;
    return H5Fget_mdc_config(file, &config) >= 0;
}

std::atomic<bool> gFileAbandoned{false};

} // namespace

size_t metadataCacheLimit(hid_t file) {
    H5AC_cache_config_t config;
    return getMetadataCacheConfig(file, config) ? config.max_size : 0;
}

bool limitMetadataCache(hid_t file, size_t bytes) {
    H5AC_cache_config_t config;
    if (!getMetadataCacheConfig(file, config)) {
        return false;
    }
    config.set_initial_size = true;
    config.initial_size = bytes;
    config.min_size = bytes;
    config.max_size = bytes;
    config.incr_mode = H5C_incr__off;
    config.flash_incr_mode = H5C_flash_incr__off;
    config.decr_mode = H5C_decr__off;
    return H5Fset_mdc_config(file, &config) >= 0;
}

void abandonFailedFile(std::unique_ptr<H5::H5File> file) {
    static auto* parked = new std::vector<std::unique_ptr<H5::H5File>>();
    if (file) {
        parked->push_back(std::move(file));
        gFileAbandoned.store(true);
    }
}

bool hasAbandonedHdf5Files() {
    return gFileAbandoned.load();
}

} // namespace quarvel
