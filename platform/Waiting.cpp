#include "platform/Waiting.h"

#include <mutex>

namespace quarvel {

namespace {

struct Waits {
    std::mutex mutex;
    int count[2] = {};
    std::string name[2];
};

Waits& waits() {
    static Waits instance;
    return instance;
}

} // namespace

WaitingFor::WaitingFor(Waiting what, const std::string& name) : mWhat(what) {
    Waits& all = waits();
    std::lock_guard<std::mutex> lock(all.mutex);
    ++all.count[static_cast<int>(what)];
    all.name[static_cast<int>(what)] = name;
}

WaitingFor::~WaitingFor() {
    Waits& all = waits();
    std::lock_guard<std::mutex> lock(all.mutex);
    --all.count[static_cast<int>(mWhat)];
}

bool currentWait(Waiting& what, std::string& name) {
    Waits& all = waits();
    std::lock_guard<std::mutex> lock(all.mutex);
    for (int i = 0; i < 2; ++i) {
        if (all.count[i] > 0) {
            what = static_cast<Waiting>(i);
            name = all.name[i];
            return true;
        }
    }
    return false;
}

} // namespace quarvel
