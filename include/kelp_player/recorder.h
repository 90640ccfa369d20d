#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/export.h"
#include "kelp_player/packet_sink.h"

namespace kelp {

class RecordedStreams;
class RecordingThread;

// Takes what a Recorder has to tell. The host implements what it wants to know and owns the object, which must live
// until `stop` has returned. All operations are called on the recorder's own thread, one at a time; none of them may
// call the recorder, but for `isRecording`. Playback doesn't wait for them.
class RecorderObserver {
public:
    // A file was created, or overwritten, and its header is written.
    virtual void onFileBegun(const std::string& /*path*/) {}

    // A file is complete and closed; `durationMs` is what it holds, in milliseconds.
    virtual void onFileEnded(const std::string& /*path*/, int64_t /*durationMs*/) {}

    // So many packets were left out, as the disk is slower than the source, see RecorderLimits::waitingBytes.
    virtual void onPacketsLost(int /*packets*/) {}

    // The recording has ended by itself: the disk is full, the file can't be created, the container doesn't take the
    // streams, or their parameter sets are broken. `reason` is for people to read. What was written before stays, and
    // plays. The playback goes on.
    virtual void onRecordingFailed(const std::string& /*path*/, const std::string& /*reason*/) {}

protected:
    // Not virtual: recorders never destroy it.
    ~RecorderObserver() = default;
};

// When a Recorder begins the next file, and what it may hold back.
struct RecorderLimits {
    int64_t fileMs = 0;     // at the first key frame behind so many milliseconds; 0 for no limit
    int64_t fileBytes = 0;  // at the first key frame behind so many bytes of packets; 0 for no limit
    // What may wait in memory to be written. Where that is full, packets are left out up to the first key frame for
    // which there is room; there the next file begins.
    int64_t waitingBytes = 64 << 20;
};

// Writes what a player reads into files, picture and sound, without encoding, while it is played: a packet sink, given
// to `setPacketSink` of a player, before or while it plays.
//
//     kelp::Recorder recorder;
//     player->setPacketSink(&recorder);
//     recorder.start("camera.mp4");
//     ...
//     recorder.stop();                  // what was read by now is in the file
//     player->setPacketSink(nullptr);   // before the recorder goes
//
// A recording begins with the first key frame that is read after `start`, and holds every packet from there on, in one
// file as long as these go on from each other. A new file, whose name has "-2", "-3" and so on in front of its ending,
// begins at a key frame: at a limit, with nothing lost between the two, and where the packets don't go on: behind a
// seek, the pause of a live source, a change of the track, or when a camera that failed was opened anew; and where HEVC
// in MP4 or MOV changes its parameter sets, which stand in the header of the file. A source without pictures needs no
// key frame. Each file begins at 0.
//
// What is played decides what is recorded: a file is read some seconds ahead of its pictures, and not faster than it is
// played; tracks that aren't played aren't recorded, and neither is a cover. Sound of a codec that the container can't
// hold is left out, and the log says so at level Warn.
//
// Files are written so that one which is never completed, as the process or the machine ends, can be played: up to the
// last second, or what the system had not yet written. Writing has a thread of its own, from `start` to `stop`, so that
// a slow disk holds up no playback.
//
// Any thread may call any operation but `start` and `stop`, which are for one thread at a time.
class KELP_PLAYER_API Recorder final : public ExternPacketSink {
public:
    // The observer isn't owned; null for none.
    explicit Recorder(RecorderObserver* observer = nullptr);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    // Stops. No player may have it as its sink any more.
    ~Recorder();

    // Records into `path`, which ends in ".mp4", ".mov", ".mkv" or ".ts", from the next key frame on; existing files of
    // that name, and of those that follow, are overwritten. False with another ending, and until what was begun is
    // stopped, also where that has failed; the log's last line, by [Recorder], says so. `std::system_error` if the
    // process has too many threads.
    bool start(const std::string& path, const RecorderLimits& limits = {});

    // Ends the recording: waits until what was read by now is written, and the file is complete. Does nothing if there
    // is none. Another `start` may follow, also behind a failure.
    void stop();

    // Between `start` and `stop`, unless it has failed.
    bool isRecording() const;

    // From the player, or from a sink of the host's that passes on what it gets, on one thread at a time.
    void onStreams(const std::vector<PacketStream>& streams) override;
    void onPacket(const Packet& packet) override;
    void onGap() override;
    void onEnd() override;

private:
    RecorderObserver* const observer_;                // not owned
    mutable std::mutex mutex_;                        // never held while a file is written
    std::shared_ptr<const RecordedStreams> streams_;  // as told last; guarded by mutex_, like the next
    std::unique_ptr<RecordingThread> thread_;         // from `start` to `stop`
};

}  // namespace kelp
