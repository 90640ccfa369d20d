#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "e2e/numbered.h"
#include "e2e/playback.h"
#include "stress/seek_watch.h"
#include "stress/subtitle_reader.h"

namespace kelp::test {

// Drives players at random: opens files of the table, some of them to be played in a loop, seeks, pauses, steps from
// picture to picture, resumes, changes the speed, stops. What it does depends on the seed alone; when it does it, and
// so what it meets, on the machine too.
//
// A fault is a seek that ends neither in a first frame nor with the end of the file, a playback that stands still
// afterwards, a picture that isn't the one that its time says, or a call that doesn't return.
class SeekStress {
public:
    explicit SeekStress(uint32_t seed);
    ~SeekStress();
    SeekStress(const SeekStress&) = delete;
    SeekStress& operator=(const SeekStress&) = delete;

    // Rounds until `seconds` are over. False after the first fault, which was printed.
    bool run(int seconds);

private:
    struct File {
        const char* name;
        int durationMs;
        bool hasVideo;
        bool isNumbered;  // and its pictures are right
        int firstPtsMs;   // of picture 0 of a numbered file
    };
    static const std::vector<File>& files();

    // A number from `low` to `high`.
    int pick(int low, int high);
    bool chance(int percent) { return pick(1, 100) <= percent; }
    void rest(int ms);

    // One file from its opening to its stop.
    bool round();
    void act();
    void seek();
    void seekFromTwoThreads();
    int target();

    // Lets playback go on and waits for the end of the last seek, and for playback to move on from there.
    bool settle();
    bool isOneForgotten();
    bool checkPictures();
    bool fault(const std::string& what);
    // Ends the process if nothing has happened for long.
    void guard();

    const uint32_t seed_;
    std::mt19937 random_;
    SeekWatch watch_;
    SubtitleReader subtitles_;
    std::unique_ptr<Playback> playback_;
    std::unique_ptr<NumberSink> sink_;
    const File* file_ = nullptr;
    bool paused_ = false;
    int loopFromMs_ = -1;      // -1 for no loop
    int completedBefore_ = 0;  // when the last request was made
    int endsBefore_ = 0;
    int rounds_ = 0;
    int actions_ = 0;

    std::atomic<int64_t> lastSignUs_{0};  // of life
    std::atomic<const char*> doing_{""};
    std::atomic<bool> finished_{false};
    std::thread guard_;
};

}  // namespace kelp::test
