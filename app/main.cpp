#include "app/QuarvelApp.h"
#include "sinks/SinkHDF5.h"

#include <cstdio>
#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

int main(int argc, char** argv) {
#ifdef __GLIBC__
    // HDF5's deflate allocates and frees some 256 KiB of zlib state for every 16 KiB chunk.
    // Under glibc's default trim threshold a mover thread hands those pages back to the kernel
    // at each free and faults them in again for the next chunk: about 13% of a recording.
    mallopt(M_TRIM_THRESHOLD, 4 << 20);
#endif
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
