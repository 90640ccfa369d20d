// Runs a target without libFuzzer: replays files, or makes inputs out of them.
//
//   TARGET FILE-OR-FOLDER...                                        each file once
//   TARGET --runs N [--first N] [--seed N] [--max-bytes N] FILE-OR-FOLDER...
//   TARGET --seconds S [...] FILE-OR-FOLDER...                      mutations of the files
//
// An input that ends the process, or runs longer than two minutes, is kept as crash-TARGET-SEED-NUMBER in the current
// folder.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "fuzz/fuzz_target.h"
#include "fuzz/mutator.h"

extern "C" void __sanitizer_set_death_callback(void (*callback)(void)) __attribute__((weak));

namespace {

using kelp::test::FuzzBytes;
using kelp::test::Mutator;

constexpr unsigned int kMaxSecondsPerRun = 120;

struct Options {
    uint64_t runs = 0;
    double seconds = 0;
    uint64_t first = 0;
    uint64_t seed = 1;
    size_t maxBytes = size_t{2} << 20U;
    std::vector<std::string> paths;
};

// What the handlers below may look at.
const uint8_t* g_data = nullptr;
size_t g_size = 0;
char g_crashFile[512] = "";

void keepInput() {
    if (!g_data || g_crashFile[0] == '\0') {
        return;
    }
    const int file = open(g_crashFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file == -1) {
        return;
    }
    size_t done = 0;
    while (done < g_size) {
        const ssize_t count = write(file, g_data + done, g_size - done);
        if (count <= 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    close(file);
    const char text[] = "\nfuzz: the input is kept as ";
    (void)!write(STDERR_FILENO, text, sizeof(text) - 1);
    (void)!write(STDERR_FILENO, g_crashFile, std::strlen(g_crashFile));
    (void)!write(STDERR_FILENO, "\n", 1);
    g_data = nullptr;
}

void onSignal(int signal) {
    if (signal == SIGALRM) {
        const char text[] = "\nfuzz: a run takes too long\n";
        (void)!write(STDERR_FILENO, text, sizeof(text) - 1);
    }
    keepInput();
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(SIGABRT, &action, nullptr);
    abort();
}

void catchDeaths() {
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigaction(SIGABRT, &action, nullptr);
    sigaction(SIGALRM, &action, nullptr);
    if (__sanitizer_set_death_callback) {
        __sanitizer_set_death_callback(keepInput);
    } else {
        for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
            sigaction(signal, &action, nullptr);
        }
    }
}

void run(const FuzzBytes& bytes) {
    g_data = bytes.data();
    g_size = bytes.size();
    alarm(kMaxSecondsPerRun);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    alarm(0);
    g_data = nullptr;
}

std::vector<std::string> filesOf(const std::vector<std::string>& paths) {
    std::vector<std::string> files;
    for (const auto& path : paths) {
        if (!std::filesystem::is_directory(path)) {
            files.push_back(path);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            files.push_back(entry.path().string());
        }
    }
    // Folders come in no order of their own.
    std::sort(files.begin(), files.end());
    return files;
}

bool readFile(const std::string& path, FuzzBytes& bytes) {
    std::ifstream file(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    return file.good() || file.eof();
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (!word.starts_with("--") || i + 1 == argc) {
            options.paths.push_back(word);
            continue;
        }
        const char* value = argv[++i];
        if (word == "--runs") {
            options.runs = std::strtoull(value, nullptr, 10);
        } else if (word == "--seconds") {
            options.seconds = std::strtod(value, nullptr);
        } else if (word == "--first") {
            options.first = std::strtoull(value, nullptr, 10);
        } else if (word == "--seed") {
            options.seed = std::strtoull(value, nullptr, 10);
        } else if (word == "--max-bytes") {
            options.maxBytes = std::strtoull(value, nullptr, 10);
        } else {
            std::fprintf(stderr, "fuzz: no option %s\n", word.c_str());
            std::exit(2);
        }
    }
    return options;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const std::string name = std::filesystem::path(argv[0]).filename().string();
    const auto start = std::chrono::steady_clock::now();
    catchDeaths();

    std::vector<FuzzBytes> corpus;
    for (const auto& path : filesOf(options.paths)) {
        FuzzBytes bytes;
        if (!readFile(path, bytes)) {
            std::fprintf(stderr, "fuzz: can't read %s\n", path.c_str());
            return 2;
        }
        corpus.push_back(std::move(bytes));
    }
    if (options.runs == 0 && options.seconds <= 0) {
        for (const auto& bytes : corpus) {
            run(bytes);
        }
        std::fprintf(stderr, "%s: %zu files replayed in %.1f s\n", name.c_str(), corpus.size(), secondsSince(start));
        return corpus.empty() ? 2 : 0;
    }

    Mutator mutator(std::move(corpus), options.seed, options.maxBytes);
    const uint64_t last = options.runs > 0 ? options.first + options.runs : std::numeric_limits<uint64_t>::max();
    uint64_t number = options.first;
    while (number < last && (options.seconds <= 0 || secondsSince(start) < options.seconds)) {
        const FuzzBytes bytes = mutator.make(number);
        std::snprintf(g_crashFile, sizeof(g_crashFile), "crash-%s-%" PRIu64 "-%" PRIu64, name.c_str(), options.seed,
                      number);
        run(bytes);
        ++number;
    }
    std::fprintf(stderr, "%s: %" PRIu64 " runs in %.1f s, seed %" PRIu64 "\n", name.c_str(), number - options.first,
                 secondsSince(start), options.seed);
    return 0;
}
