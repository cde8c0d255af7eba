#include "configurations/Schemes.h"
#include "configurations/Configurations.h"
#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"
#include "sinks/SinkHDF5.h"
#include "sources/MockRecorder.h"
#include "sources/Recorder.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarvel::test {
namespace {

const std::string kZeroControl = "/sys/dev/char/0:0/device/control";

std::shared_ptr<CommandLineOptions> optionsFor(const std::string& conf, const std::string& file,
                                               const std::string& recDev, uint32_t bytes,
                                               std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"--conf=" + conf, "--file=" + file, "--rec-dev=" + recDev,
                                     "--data-bytes=" + std::to_string(bytes)};
    args.insert(args.end(), extra.begin(), extra.end());
    auto options = std::make_shared<CommandLineOptions>(args);
    EXPECT_FALSE(options->hasError());
    return options;
}

Chain build(const std::string& conf, const std::shared_ptr<CommandLineOptions>& options) {
    return getConfiguration(createConfigurations(), conf)->buildChain(options);
}

// what() of the std::exception that call throws, or a marker that it threw none.
std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "non-standard exception";
    }
    return "no exception";
}

bool exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

constexpr int kNoNamespace = 77;

// Runs body in a child process whose /sys/dev/char is an empty tmpfs of its own, so that a
// test can give the device number of an ordinary file (0:0) a control directory. The child
// prints its own failures; its exit status tells the parent whether there were any.
void inPrivateSysfs(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", "/sys/dev/char", "tmpfs", 0, nullptr) != 0) {
            _exit(kNoNamespace);
        }
        try {
            body();
        } catch (const std::exception& e) {
            ADD_FAILURE() << "uncaught exception: " << e.what();
        } catch (...) {
            ADD_FAILURE() << "uncaught non-standard exception";
        }
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == kNoNamespace) {
        GTEST_SKIP() << "no private mount namespace here (needs root and mount permission)";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's failures are printed above";
}

// --- the mock scheme ---

TEST(MockScheme, ChainIsMockRecorderTavoDecoderAndFile) {
    TempDir dir;
    const Chain chain =
        build("mock", optionsFor("mock", dir.file("out.h5"), "/dev/myrecorder", 4096));
    ASSERT_EQ(chain.size(), 3u);
    EXPECT_EQ(chain[0]->name(), "mock recorder");
    EXPECT_EQ(chain[1]->name(), "TavoADC decoder");
    EXPECT_EQ(chain[2]->name(), "H5 file");

    EXPECT_TRUE(chain[0]->isSource());
    EXPECT_FALSE(chain[0]->isSink());
    EXPECT_TRUE(chain[1]->isSource());
    EXPECT_TRUE(chain[1]->isSink());
    EXPECT_FALSE(chain[2]->isSource());
    EXPECT_TRUE(chain[2]->isSink());

    EXPECT_NE(dynamic_cast<MockRecorder*>(chain[0]->source.get()), nullptr);
    auto* decoderAsSource = dynamic_cast<DecoderTavoADC*>(chain[1]->source.get());
    auto* decoderAsSink = dynamic_cast<DecoderTavoADC*>(chain[1]->sink.get());
    ASSERT_NE(decoderAsSource, nullptr);
    EXPECT_EQ(decoderAsSource, decoderAsSink);
    EXPECT_NE(dynamic_cast<SinkHDF5*>(chain[2]->sink.get()), nullptr);
    EXPECT_FALSE(exists(dir.file("out.h5"))) << "building a chain opens nothing";
}

TEST(MockScheme, NeverLooksAtTheRecorderDevice) {
    TempDir dir;
    StderrCapture capture(5);
    const Chain chain =
        build("mock", optionsFor("mock", dir.file("out.h5"), dir.file("no/such/device"), 8));
    EXPECT_EQ(chain.size(), 3u);
    EXPECT_EQ(capture.text().find("Recoder"), std::string::npos);
}

// The mock recorder delivers exactly the configured number of counter words.
TEST(MockScheme, RecorderGetsTheByteCountUnchanged) {
    TempDir dir;
    const Chain chain = build("mock", optionsFor("mock", dir.file("out.h5"), "/dev/myrecorder",
                                                 4100, {"--src-addr=4294967295", "--data-rate=9"}));
    ASSERT_FALSE(chain.empty());
    const auto source = chain[0]->getSource();
    source->open(4100);
    std::vector<uint8_t> buffer(8192, 0xAA);
    ASSERT_EQ(source->read(buffer.data(), 8192), 4100u);
    for (uint32_t k = 0; k < 4100 / 4; ++k) {
        uint32_t word = 0;
        std::memcpy(&word, buffer.data() + 4 * k, 4);
        ASSERT_EQ(word, k);
    }
    EXPECT_EQ(buffer[4100], 0xAA);
    EXPECT_EQ(source->read(buffer.data(), 8192), 0u);
}

TEST(MockScheme, ByteCountNotMultipleOfFourIsRefusedAndNothingIsCreated) {
    TempDir dir;
    for (const uint32_t bytes : {10u, 1u, 4294967295u}) {
        const auto options = optionsFor("mock", dir.file("out.h5"), "/dev/myrecorder", bytes);
        EXPECT_EQ(errorOf([&] { build("mock", options); }), "bytesCount must be a multiple of 4")
            << bytes;
    }
    EXPECT_FALSE(exists(dir.file("out.h5")));
}

TEST(MockScheme, EveryCallMakesNewElementsOwnedOnlyByTheirHolders) {
    TempDir dir;
    const auto scheme = getConfiguration(createConfigurations(), "mock");
    const auto options = optionsFor("mock", dir.file("out.h5"), "/dev/myrecorder", 4096);
    const Chain first = scheme->buildChain(options);
    const Chain second = scheme->buildChain(options);
    ASSERT_EQ(first.size(), 3u);
    ASSERT_EQ(second.size(), 3u);

    std::set<const void*> seen;
    for (const Chain* chain : {&first, &second}) {
        for (const auto& holder : *chain) {
            EXPECT_TRUE(seen.insert(holder.get()).second) << holder->name();
            // The decoder appears as source and sink of one holder; count it once per chain.
            const void* element = holder->source ? dynamic_cast<const void*>(holder->source.get())
                                                 : dynamic_cast<const void*>(holder->sink.get());
            EXPECT_TRUE(seen.insert(element).second) << holder->name();
        }
    }
    // The builder keeps no references of its own.
    EXPECT_EQ(first[0]->source.use_count(), 1);
    EXPECT_EQ(first[1]->source.use_count(), 2); // the holder's source and sink pointers
    EXPECT_EQ(first[2]->sink.use_count(), 1);
}

// --- the recorder schemes, without a control directory ---

class RecorderScheme : public ::testing::TestWithParam<std::string> {};

TEST_P(RecorderScheme, MissingDeviceFailsBeforeAnythingIsProgrammed) {
    TempDir dir;
    StderrCapture capture(5);
    const auto options = optionsFor(GetParam(), dir.file("out.h5"), dir.file("missing"), 4096);
    EXPECT_EQ(errorOf([&] { build(GetParam(), options); }),
              "Failed to get stat from cdev, file exist?");
    const std::string log = capture.text();
    EXPECT_NE(log.find("ERROR [Recoder] ::stat on recorder cdev failed with 2\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("sysfsroot"), std::string::npos) << log;
    EXPECT_EQ(log.find("setToSysfs"), std::string::npos) << log;
    EXPECT_FALSE(exists(dir.file("out.h5")));
}

TEST_P(RecorderScheme, RegularFileWithoutControlDirectoryFailsAtTheFirstAttribute) {
    if (exists(kZeroControl)) {
        GTEST_SKIP() << kZeroControl << " exists on this machine";
    }
    TempDir dir;
    writeFile(dir.file("device"), "");
    StderrCapture capture(5);
    const auto options = optionsFor(GetParam(), dir.file("out.h5"), dir.file("device"), 4096);
    EXPECT_EQ(errorOf([&] { build(GetParam(), options); }), "Could not open sysfs entry");
    const std::string log = capture.text();
    EXPECT_NE(log.find("INFO [Recoder] Got recorder sysfsroot = " + kZeroControl + "\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(count(log, "+setToSysfs("), 1u) << log;
    EXPECT_NE(log.find("+setToSysfs(entryName=srcmemaddr"), std::string::npos) << log;
    EXPECT_FALSE(exists(dir.file("out.h5")));
}

INSTANTIATE_TEST_SUITE_P(Schemes, RecorderScheme, ::testing::Values("int32", "tavoadc", "lumetra"));

std::string lumetraSizeError(uint32_t bytes) {
    return errorOf([&] { DecoderLumetraDds().outputSizeFor(bytes); });
}

// Twice the byte count must fit 32 bits; the check comes before the recorder is touched.
TEST(LumetraScheme, ByteCountTooLargeToDecodeFailsBeforeTheRecorderIsProgrammed) {
    TempDir dir;
    writeFile(dir.file("device"), "");
    for (const uint32_t bytes : {2147483652u, 2147483648u, 4294967292u}) {
        const std::string expected = lumetraSizeError(bytes);
        ASSERT_NE(expected, "no exception") << bytes;
        StderrCapture capture(5);
        const auto options = optionsFor("lumetra", dir.file("out.h5"), dir.file("device"), bytes);
        EXPECT_EQ(errorOf([&] { build("lumetra", options); }), expected);
        EXPECT_EQ(capture.text().find("setToSysfs"), std::string::npos) << bytes;
    }
    EXPECT_EQ(lumetraSizeError(2147483652u), "data-bytes too large for the Lumetra DDS decoder: "
                                             "2147483652 bytes decode to more than 4294967295 "
                                             "bytes");
}

TEST(LumetraScheme, LargestDecodableByteCountReachesTheRecorder) {
    TempDir dir;
    writeFile(dir.file("device"), "");
    for (const std::string conf : {"lumetra", "tavoadc", "int32"}) {
        const uint32_t bytes = conf == "lumetra" ? 2147483644u : 4294967292u;
        StderrCapture capture(5);
        const auto options = optionsFor(conf, dir.file("out.h5"), dir.file("device"), bytes);
        const std::string error = errorOf([&] { build(conf, options); });
        if (!exists(kZeroControl)) {
            EXPECT_EQ(error, "Could not open sysfs entry") << conf;
        }
        EXPECT_NE(capture.text().find("+setToSysfs(entryName=srcmemaddr"), std::string::npos)
            << conf;
    }
}

// --- the recorder schemes with a control directory (private mount namespace) ---

struct SchemeCase {
    std::string conf;
    std::string decoderName; // empty: no decoder
    std::function<bool(AbstractDataSource*)> isDecoder;
};

void PrintTo(const SchemeCase& scheme, std::ostream* out) {
    *out << scheme.conf;
}

class ProgrammedRecorderScheme : public ::testing::TestWithParam<SchemeCase> {};

TEST_P(ProgrammedRecorderScheme, ChainShapeAndAttributesWrittenOnce) {
    const SchemeCase scheme = GetParam();
    TempDir dir;
    const std::string device = dir.file("device");
    writeFile(device, "data");
    inPrivateSysfs([&] {
        ASSERT_TRUE(std::filesystem::create_directories(kZeroControl));
        StderrCapture capture(5);
        const Chain chain =
            build(scheme.conf, optionsFor(scheme.conf, dir.file("out.h5"), device, 4096,
                                          {"--src-addr=4294967295", "--data-rate=7"}));
        const std::string log = capture.text();

        EXPECT_EQ(readFile(kZeroControl + "/srcmemaddr"), "4294967295");
        EXPECT_EQ(readFile(kZeroControl + "/datacount"), "4096");
        EXPECT_EQ(readFile(kZeroControl + "/datarate"), "55"); // the character '7'
        for (const char* entry : {"srcmemaddr", "datacount", "datarate"}) {
            EXPECT_EQ(count(log, std::string("+setToSysfs(entryName=") + entry + ","), 1u)
                << entry << "\n"
                << log;
        }

        const size_t expectedSize = scheme.decoderName.empty() ? 2 : 3;
        ASSERT_EQ(chain.size(), expectedSize);
        EXPECT_EQ(chain.front()->name(), "recorder");
        EXPECT_FALSE(chain.front()->isSink());
        auto* recorder = dynamic_cast<Recorder*>(chain.front()->source.get());
        ASSERT_NE(recorder, nullptr);
        EXPECT_EQ(recorder->devicePath(), device);
        EXPECT_EQ(recorder->sysfsRoot(), kZeroControl);
        EXPECT_FALSE(recorder->isOpen()) << "the device is opened by the mover, not the builder";
        EXPECT_EQ(chain.back()->name(), "H5 file");
        EXPECT_FALSE(chain.back()->isSource());
        EXPECT_NE(dynamic_cast<SinkHDF5*>(chain.back()->sink.get()), nullptr);
        if (expectedSize == 3) {
            EXPECT_EQ(chain[1]->name(), scheme.decoderName);
            EXPECT_TRUE(scheme.isDecoder(chain[1]->source.get()));
            EXPECT_EQ(dynamic_cast<void*>(chain[1]->source.get()),
                      dynamic_cast<void*>(chain[1]->sink.get()));
        }
        EXPECT_FALSE(exists(dir.file("out.h5")));
    });
}

INSTANTIATE_TEST_SUITE_P(
    Schemes, ProgrammedRecorderScheme,
    ::testing::Values(SchemeCase{"int32", "", nullptr},
                      SchemeCase{"tavoadc", "Tavo ADC decoder",
                                 [](AbstractDataSource* s) {
                                     return dynamic_cast<DecoderTavoADC*>(s) != nullptr;
                                 }},
                      SchemeCase{"lumetra", "Lumetra DDS decoder",
                                 [](AbstractDataSource* s) {
                                     return dynamic_cast<DecoderLumetraDds*>(s) != nullptr;
                                 }}),
    [](const ::testing::TestParamInfo<SchemeCase>& param) { return param.param.conf; });

TEST(ProgrammedRecorderScheme, FailedAttributeKeepsTheEarlierOnesAndStopsThere) {
    TempDir dir;
    writeFile(dir.file("device"), "");
    inPrivateSysfs([&] {
        // A directory cannot be opened as a file for writing.
        ASSERT_TRUE(std::filesystem::create_directories(kZeroControl + "/datacount"));
        const auto options =
            optionsFor("tavoadc", dir.file("out.h5"), dir.file("device"), 4096, {"--src-addr=12"});
        EXPECT_EQ(errorOf([&] { build("tavoadc", options); }), "Could not open sysfs entry");
        EXPECT_EQ(readFile(kZeroControl + "/srcmemaddr"), "12");
        EXPECT_FALSE(exists(kZeroControl + "/datarate"));
    });
}

TEST(ProgrammedRecorderScheme, LumetraSizeFailureLeavesTheAttributesUnwritten) {
    TempDir dir;
    writeFile(dir.file("device"), "");
    inPrivateSysfs([&] {
        ASSERT_TRUE(std::filesystem::create_directories(kZeroControl));
        const auto options =
            optionsFor("lumetra", dir.file("out.h5"), dir.file("device"), 2147483652u);
        EXPECT_EQ(errorOf([&] { build("lumetra", options); }), lumetraSizeError(2147483652u));
        EXPECT_TRUE(std::filesystem::is_empty(kZeroControl));
    });
}

} // namespace
} // namespace quarvel::test
