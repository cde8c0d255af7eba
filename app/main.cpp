#include "app/QuarvelApp.h"

int main(int argc, char** argv) {
    quarvel::QuarvelApp app(argc, argv);
    return app.run();
}
