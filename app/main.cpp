#include "app/QuarvelApp.h"
#include "sinks/SinkHDF5.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    int exitCode = 0;
    {
        quarvel::QuarvelApp app(argc, argv);
        exitCode = app.run();
    }
    // After a file failed to close (a full disk), HDF5's own exit handlers would crash; the
    // file is as complete as it can be, so the process leaves without them.
    if (quarvel::SinkHDF5::hasAbandonedFiles()) {
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(exitCode);
    }
    return exitCode;
}
