#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "output/parameter_sets.h"
#include "output/recorded_streams.h"

struct AVBSFContext;
struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace kelp {

struct FreeRecordingFilter {
    void operator()(AVBSFContext* context) const;
};

// One file of a recording: packets as they were read, from 0 on. One thread uses it.
//
// What the container needs is in the file from its beginning on, or comes with each second: one that isn't ended plays.
class RecordingFile {
public:
    // The muxer's short name for a path, by its ending; null for none that is known.
    static const char* containerOf(const std::string& path);

    RecordingFile(std::string path, std::shared_ptr<const RecordedStreams> streams);
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;
    // Closes the file as it is.
    ~RecordingFile();

    // Each returns an empty text, or why it failed; after that the file is only to be destroyed. `first` is what will
    // be written first.
    std::string open(const AVPacket& first);
    // Whether the pictures from this key frame on can be decoded with what the file says of the stream.
    bool takes(const AVPacket& keyFrame);
    // `packet` is one of the streams', with its track as the stream's index, and is changed. It comes in the order in
    // which it was read; the first one is a key frame, if there are pictures.
    std::string write(AVPacket& packet);
    // Completes and closes it.
    std::string end();

    const std::string& path() const { return path_; }
    // From the first packet to the end of the last one, in milliseconds.
    int64_t durationMs() const { return durationUs_ / 1000; }
    // In the packets.
    int64_t bytes() const { return bytes_; }

private:
    // A stream of the file.
    struct Track {
        const RecordedStreams::Stream* source;
        AVStream* stream = nullptr;  // the context's; null where the container doesn't take it
        std::unique_ptr<AVBSFContext, FreeRecordingFilter> filter = {};  // for its packets; null for none
        bool hasTime = false;                                            // the next two are of a packet
        int64_t lastDts = 0;                                             // as written, in the file's units
        int64_t lastEnd = 0;                                             // the same
        int64_t shift = 0;  // what is added to its times, in the file's units
    };

    std::string addStreams(const AVPacket& first);
    std::string addStream(const RecordedStreams::Stream& source, Track& track);
    std::string describePictures(Track& track, const AVPacket& first);
    // Puts the packet's times onto the file's time line.
    void place(AVPacket& packet, Track& track);

    const std::string path_;
    const std::shared_ptr<const RecordedStreams> streams_;
    AVFormatContext* context_ = nullptr;  // owned
    std::vector<Track> tracks_;
    std::unique_ptr<ParameterSets> parameterSets_;  // of the video; null where a file may hold several
    std::vector<uint8_t> describedSets_;
    bool headerWritten_ = false;
    bool isHeaderDue_ = false;  // it may wait for a stream
    int64_t heldBytes_ = 0;     // of packets of which some may wait in libavformat
    bool hasOrigin_ = false;
    int64_t originUs_ = 0;  // the source's time that is 0 in the file
    int64_t durationUs_ = 0;
    int64_t bytes_ = 0;
};

}  // namespace kelp
