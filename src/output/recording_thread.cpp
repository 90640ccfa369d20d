#include "output/recording_thread.h"

#include <utility>

#include "kelp_player/log.h"
#include "output/recorded_streams.h"
#include "output/recording_file.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "Recorder";
constexpr char kName[] = "Recorder";  // of the thread

// What a packet takes in memory, of which there may be many small ones.
int64_t bytesOf(const AVPacket& packet) {
    constexpr int64_t kBesideData = 512;
    int64_t bytes = kBesideData + packet.size;
    for (int i = 0; i < packet.side_data_elems; ++i) {
        bytes += static_cast<int64_t>(packet.side_data[i].size);
    }
    return bytes;
}

}  // namespace

void FreeRecordedPacket::operator()(AVPacket* packet) const {
    av_packet_free(&packet);
}

RecordingThread::RecordingThread(std::string path, const RecorderLimits& limits, RecorderObserver* observer)
    : BaseThread(kName), path_(std::move(path)), limits_(limits), observer_(observer) {
}

RecordingThread::~RecordingThread() = default;

void RecordingThread::begin(std::shared_ptr<const RecordedStreams> streams) {
    cut();
    std::lock_guard lock(mutex_);
    streams_ = std::move(streams);
}

void RecordingThread::cut() {
    if (failed_) {
        return;
    }
    std::lock_guard lock(mutex_);
    if (!items_.empty() && !items_.back().packet) {
        items_.back().lostBefore += std::exchange(lost_, 0);
        return;
    }
    items_.push_back({stretch_++, streams_, std::exchange(lost_, 0), nullptr});
    cond_.notify_one();
}

// Those without bytes are for decoders.
void RecordingThread::take(const AVPacket& packet) {
    if (failed_ || packet.size <= 0) {
        return;
    }
    // Counted, not copied, where the source's memory allows it.
    RecordedPacket kept(av_packet_clone(&packet));
    std::lock_guard lock(mutex_);
    // Behind packets that were left out there is room again only when half of what waited has been written.
    const int64_t bytes = bytesOf(packet);
    const bool hasRoom = waitingBytes_ + bytes <= (lost_ > 0 ? limits_.waitingBytes / 2 : limits_.waitingBytes);
    if (!streams_ || !kept || !hasRoom) {
        stretch_ += streams_ && lost_++ == 0;
        return;
    }
    waitingBytes_ += bytes;
    items_.push_back({stretch_, streams_, std::exchange(lost_, 0), std::move(kept)});
    cond_.notify_one();
}

void RecordingThread::finish() {
    {
        std::lock_guard lock(mutex_);
        finishing_ = true;
        cond_.notify_one();
    }
    joinThread();
}

// What this waits for changes under the mutex, under which it looks before it sleeps.
std::deque<RecordingThread::Item> RecordingThread::takeItems() {
    std::unique_lock lock(mutex_);
    cond_.wait(lock, [this] { return finishing_ || !items_.empty(); });
    return std::exchange(items_, {});
}

void RecordingThread::Run() {
    setName(kName);
    for (auto items = takeItems(); !items.empty() && !failed_; items = takeItems()) {
        for (; !items.empty() && !failed_; items.pop_front()) {
            const int64_t bytes = items.front().packet ? bytesOf(*items.front().packet) : 0;
            failed_ = !write(items.front());
            std::lock_guard lock(mutex_);
            waitingBytes_ -= bytes;
        }
    }
    if (!failed_) {
        failed_ = !endFile();
    }
    file_.reset();
    std::lock_guard lock(mutex_);
    items_.clear();
}

bool RecordingThread::write(Item& item) {
    if (item.lostBefore > 0) {
        Log::Warn(kTag, "%s, %d packets were left out: the disk is too slow\n", path_.c_str(), item.lostBefore);
        if (observer_) {
            observer_->onPacketsLost(item.lostBefore);
        }
    }
    if (file_ && (!item.packet || fileStretch_ != item.stretch) && !endFile()) {
        return false;
    }
    if (!item.packet) {
        return true;
    }
    const bool isVideo = item.packet->stream_index == item.streams->videoTrack();
    const bool isKey = item.streams->videoTrack() < 0 || (isVideo && (item.packet->flags & AV_PKT_FLAG_KEY) != 0);
    if (file_ && isKey && (isFileFull() || (isVideo && !file_->takes(*item.packet))) && !endFile()) {
        return false;
    }
    if (!file_) {
        if (!isKey) {
            return true;
        }
        fileStretch_ = item.stretch;
        if (!beginFile(item.streams, *item.packet)) {
            return false;
        }
    }
    const std::string why = file_->write(*item.packet);
    return why.empty() || fail(why);
}

bool RecordingThread::isFileFull() const {
    return (limits_.fileMs > 0 && file_->durationMs() >= limits_.fileMs) ||
           (limits_.fileBytes > 0 && file_->bytes() >= limits_.fileBytes);
}

bool RecordingThread::beginFile(const std::shared_ptr<const RecordedStreams>& streams, const AVPacket& first) {
    file_ = std::make_unique<RecordingFile>(nextPath(), streams);
    if (const std::string why = file_->open(first); !why.empty()) {
        return fail(why);
    }
    Log::Info(kTag, "%s, begun\n", file_->path().c_str());
    if (observer_) {
        observer_->onFileBegun(file_->path());
    }
    return true;
}

bool RecordingThread::endFile() {
    if (!file_) {
        return true;
    }
    if (const std::string why = file_->end(); !why.empty()) {
        return fail(why);
    }
    const auto ended = std::exchange(file_, nullptr);
    Log::Info(kTag, "%s, ended, %lld ms\n", ended->path().c_str(), static_cast<long long>(ended->durationMs()));
    if (observer_) {
        observer_->onFileEnded(ended->path(), ended->durationMs());
    }
    return true;
}

// "film.mp4", "film-2.mp4", "film-3.mp4" ...
std::string RecordingThread::nextPath() {
    if (++files_ == 1) {
        return path_;
    }
    const size_t ending = path_.rfind('.');
    return path_.substr(0, ending) + "-" + std::to_string(files_) + path_.substr(ending);
}

bool RecordingThread::fail(const std::string& reason) {
    failed_ = true;
    const std::string path = file_->path();
    file_.reset();
    Log::Error(kTag, "%s, the recording has ended: %s\n", path.c_str(), reason.c_str());
    if (observer_) {
        observer_->onRecordingFailed(path, reason);
    }
    return false;
}

}  // namespace kelp
