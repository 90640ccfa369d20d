#include "child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <future>

#include "measures.h"

namespace kelp::bench {

namespace {

constexpr unsigned int kPatienceSeconds = 600;  // a row that takes longer hangs
constexpr const char* kPeak = "peak_mib";

[[noreturn]] void become(const std::vector<std::string>& words, int results) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(results, STDOUT_FILENO);
    // SDL warns of the drivers that nobody hears or sees.
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    std::vector<char*> arguments;
    std::string program = "kelp_bench";
    std::string option = "--row";
    arguments.push_back(program.data());
    arguments.push_back(option.data());
    std::vector<std::string> copies = words;
    for (std::string& word : copies) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    execv("/proc/self/exe", arguments.data());
    _exit(127);
}

}  // namespace

ChildResult runRow(const std::vector<std::string>& words) {
    ChildResult result;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return result;
    }
    const double cpuBefore = cpuSeconds(RUSAGE_CHILDREN);
    const pid_t child = fork();
    if (child == 0) {
        become(words, ends[1]);
    }
    close(ends[1]);
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = read(ends[0], part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(size));
    }
    close(ends[0]);
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return result;
    }
    result.cpuSeconds = cpuSeconds(RUSAGE_CHILDREN) - cpuBefore;
    result.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    result.facts = Facts::parse(text);
    result.peakMiB = result.facts.number(kPeak);
    if (!result.ok) {
        std::string all;
        for (const std::string& word : words) {
            all += ' ' + word;
        }
        std::fprintf(stderr, "kelp_bench --row%s failed, status %d\n", all.c_str(), status);
    }
    return result;
}

std::vector<ChildResult> runTogether(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::future<ChildResult>> running;
    for (const auto& words : rows) {
        running.push_back(std::async(std::launch::async, [&words] { return runRow(words); }));
    }
    std::vector<ChildResult> results;
    for (auto& row : running) {
        results.push_back(row.get());
    }
    return results;
}

std::vector<ChildResult> runByTurns(const std::vector<std::vector<std::string>>& rows, int rounds, int block) {
    std::vector<ChildResult> results(rows.size(), ChildResult{.ok = true, .facts = {}});
    for (int done = 0, turn = 0; done < rounds; done += block, ++turn) {
        for (size_t i = 0; i < rows.size(); ++i) {
            std::vector<std::string> words = rows[i];
            words.insert(words.end(), {std::to_string(std::min(block, rounds - done)), std::to_string(turn)});
            const ChildResult result = runRow(words);
            results[i].ok = results[i].ok && result.ok;
            results[i].facts.add(result.facts);
            results[i].cpuSeconds += result.cpuSeconds;
            results[i].peakMiB = std::max(results[i].peakMiB, result.peakMiB);
        }
    }
    return results;
}

int beRow(bool (*row)(const std::vector<std::string>& words, Facts& facts), const std::vector<std::string>& words) {
    alarm(kPatienceSeconds);
    Facts facts;
    const bool ok = row(words, facts);
    // Not what the parent's rusage tells: that counts the parent's own memory, from before this program was loaded.
    facts.set(kPeak, processState().peakMiB);
    std::fputs(facts.text().c_str(), stdout);
    return ok ? 0 : 1;
}

}  // namespace kelp::bench
