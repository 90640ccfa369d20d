#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "e2e/http_server.h"
#include "e2e/media.h"
#include "e2e/rtsp_server.h"
#include "stress/random.h"

namespace kelp::test {

// What is played from elsewhere than a file: a film over HTTP, and a camera, both of which fail.
class FilmServers {
public:
    explicit FilmServers(bool hasCamera) {
        if (hasCamera) {
            camera_ = std::make_unique<RtspServer>(RtspServer::Files{{"camera", mediaPath("small.mp4")}});
            cameraUrl_ = camera_->url("camera");
        }
    }

    // Of one of them, or empty: as often as not, a file is to be played. Any thread.
    std::string url(Random& random) const {
        const int which = random.below(8);
        return which < 2 ? films_.url() : which == 2 ? cameraUrl_ : "";
    }

    // With the film. Any thread.
    void makeTrouble(Random& random) {
        const int64_t position = random.below(static_cast<int>(films_.size()));
        switch (random.below(4)) {
            case 0:
                films_.dropAt(position);
                break;
            case 1:
                films_.holdAt(position);
                break;
            case 2:
                films_.setRate(random.below(2) == 0 ? 0 : 20000 + random.below(100000));
                break;
            default:
                films_.release();
                break;
        }
    }

    // Those that play are to get over it. For the thread that has made this object alone.
    void loseCamera(Random& random) {
        if (!camera_) {
            return;
        }
        switch (random.below(3)) {
            case 0:
                camera_->kill();
                pause(random);
                camera_->start();
                break;
            case 1:
                camera_->suspend();
                pause(random);
                camera_->proceed();
                break;
            default:
                camera_->hangUp();
                break;
        }
    }

private:
    static void pause(Random& random) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200 + random.below(2000)));
    }

    HttpServer films_{mediaPath("faststart.mp4")};
    std::unique_ptr<RtspServer> camera_;
    std::string cameraUrl_;
};

}  // namespace kelp::test
