#include "configurations/Configurations.h"
#include "configurations/Schemes.h"
#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"
#include "sinks/SinkHDF5.h"
#include "sources/MockRecorder.h"
#include "sources/Recorder.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <typeinfo>
#include <utility>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarvel::test {
namespace {

namespace fs = std::filesystem;

const std::string kZeroControl = "/sys/dev/char/0:0/device/control"; // that of a regular file

Chain build(const std::string& conf, const std::string& file, const std::string& recDev,
            uint32_t bytes) {
    const auto options = std::make_shared<CommandLineOptions>(std::vector<std::string>{
        "--conf=" + conf, "--file=" + file, "--rec-dev=" + recDev,
        "--data-bytes=" + std::to_string(bytes), "--src-addr=4294967295", "--data-rate=7"});
    EXPECT_FALSE(options->hasError());
    return getConfiguration(createConfigurations(), conf)->buildChain(options);
}

std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

// Each holder as "name source-class sink-class;", with "-" for none and "=" for the source.
std::string shapeOf(const Chain& chain) {
    std::string shape;
    for (const auto& holder : chain) {
        const AbstractDataSource* source = holder->source.get();
        const AbstractDataSink* sink = holder->sink.get();
        const bool same = source != nullptr &&
                          dynamic_cast<const void*>(source) == dynamic_cast<const void*>(sink);
        shape += holder->name() + " " + (source ? typeid(*source).name() : "-") + " " +
                 (same   ? "="
                  : sink ? typeid(*sink).name()
                         : "-") +
                 ";";
    }
    return shape;
}

// Runs body in a child whose /sys/dev/char is an empty tmpfs of its own, so that a regular
// file's device number 0:0 can have a control directory. Needs root.
void inPrivateSysfs(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", "/sys/dev/char", "tmpfs", 0, nullptr) != 0) {
            ::_exit(77);
        }
        try {
            body();
        } catch (const std::exception& e) {
            ADD_FAILURE() << "uncaught exception: " << e.what();
        }
        std::fflush(nullptr);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "see the child's output";
}

// Each name finding its scheme is seen in the chains each scheme builds, below.
TEST(Registry, FindsOnlyExactNamesAndListsThemInByteOrder) {
    const ConfigurationMap registry = createConfigurations();
    for (const std::string name : {"MOCK", " mock", "mock ", "", "int", "int32x"}) {
        EXPECT_THROW(getConfiguration(registry, name), std::out_of_range) << "'" << name << "'";
    }
    std::ostringstream out;
    out << registry << "end";
    EXPECT_EQ(out.str(), "int32\tDecode 32 bits signed integer, into HDF5\n"
                         "lumetra\tDecode data from Lumetra ADC (Signal or Lock)\n"
                         "mock\tMock data recorder, HDF5 sink\n"
                         "tavoadc\tDecode data from Tavo ADC (Signal or Lock)\nend");
}

TEST(MockScheme, ChainsMockRecorderTavoDecoderAndFileWithoutLookingAtTheDevice) {
    TempDir dir;
    const std::string file = dir.file("out.h5");
    EXPECT_EQ(shapeOf(build("mock", file, dir.file("no-device"), 4096)),
              std::string("mock recorder ") + typeid(MockRecorder).name() + " -;TavoADC decoder " +
                  typeid(DecoderTavoADC).name() + " =;H5 file - " + typeid(SinkHDF5).name() + ";");
    EXPECT_EQ(errorOf([&] { build("mock", file, dir.file("no-device"), 10); }),
              "bytesCount must be a multiple of 4");
    EXPECT_FALSE(fs::exists(file)) << "building a chain creates no file";
}

TEST(RecorderSchemes, ProgramTheRecorderOnceAndStopAtAFailingAttribute) {
    TempDir dir;
    const std::string device = dir.file("device");
    writeFile(device, "");
    inPrivateSysfs([&] {
        const std::pair<std::string, std::string> schemes[] = {
            {"int32", ""},
            {"tavoadc", std::string("Tavo ADC decoder ") + typeid(DecoderTavoADC).name() + " =;"},
            {"lumetra",
             std::string("Lumetra DDS decoder ") + typeid(DecoderLumetraDds).name() + " =;"}};
        for (const auto& [conf, decoder] : schemes) {
            SCOPED_TRACE(conf);
            fs::remove_all(kZeroControl);
            fs::create_directories(kZeroControl);
            StderrCapture log(5);
            const Chain chain = build(conf, dir.file("out.h5"), device, 4096);
            const std::string text = log.text();
            size_t writes = 0; // one per attribute: the files alone cannot tell
            for (size_t at = 0; (at = text.find("+setToSysfs(", at)) != std::string::npos; ++at) {
                ++writes;
            }
            EXPECT_EQ(writes, 3u) << text;
            EXPECT_EQ(readFile(kZeroControl + "/srcmemaddr"), "4294967295");
            EXPECT_EQ(readFile(kZeroControl + "/datacount"), "4096");
            EXPECT_EQ(readFile(kZeroControl + "/datarate"), "55"); // "7" is taken as a character
            EXPECT_EQ(shapeOf(chain), std::string("recorder ") + typeid(Recorder).name() + " -;" +
                                          decoder + "H5 file - " + typeid(SinkHDF5).name() + ";");
            const auto recorder = std::dynamic_pointer_cast<Recorder>(chain.front()->source);
            ASSERT_TRUE(recorder);
            EXPECT_EQ(recorder->devicePath(), device);
        }

        fs::remove_all(kZeroControl);
        fs::create_directories(kZeroControl + "/datacount"); // a directory cannot be written
        EXPECT_EQ(errorOf([&] { build("tavoadc", dir.file("out.h5"), device, 4096); }),
                  "Could not open sysfs entry");
        EXPECT_EQ(readFile(kZeroControl + "/srcmemaddr"), "4294967295");
        EXPECT_FALSE(fs::exists(kZeroControl + "/datarate"));
    });
}

// Without a control directory, reaching the recorder fails with its own text.
TEST(RecorderSchemes, LumetraByteCountTooLargeToDecodeFailsBeforeTheRecorder) {
    if (fs::exists(kZeroControl)) {
        GTEST_SKIP() << kZeroControl << " exists on this machine";
    }
    TempDir dir;
    writeFile(dir.file("device"), "");
    const auto error = [&](uint32_t bytes) {
        return errorOf([&] { build("lumetra", dir.file("out.h5"), dir.file("device"), bytes); });
    };
    EXPECT_EQ(error(2147483652u).rfind("data-bytes too large for the Lumetra DDS decoder", 0), 0u);
    EXPECT_EQ(error(2147483644u), "Could not open sysfs entry") << "the largest decodable count";
}

} // namespace
} // namespace quarvel::test
