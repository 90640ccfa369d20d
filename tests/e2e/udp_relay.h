#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

namespace kelp::test {

// Hands datagrams on between ports of the loopback address, as a bad network does: some are lost, and some overtake
// others. Which ones is counted, not random.
class UdpRelay {
public:
    UdpRelay();
    ~UdpRelay();
    UdpRelay(const UdpRelay&) = delete;
    UdpRelay& operator=(const UdpRelay&) = delete;

    // Opens a port of the system's choice and returns it: what comes there goes to `toPort`.
    int forward(int toPort);

    // From now on every `loseEvery`th datagram of a port is lost, and every `swapEvery`th goes out behind its
    // successor; 0 for none.
    void trouble(int loseEvery, int swapEvery);

    int passed() const { return passed_; }
    int lost() const { return lost_; }
    int swapped() const { return swapped_; }

private:
    struct Route {
        int socket = -1;
        int toPort = 0;
        int count = 0;           // datagrams that came
        std::vector<char> held;  // one that waits for its successor
    };

    void run();
    void relay(Route& route);
    void send(const Route& route, const char* data, size_t size);

    std::atomic<bool> stop_{false};
    std::atomic<int> loseEvery_{0};
    std::atomic<int> swapEvery_{0};
    std::atomic<int> passed_{0};
    std::atomic<int> lost_{0};
    std::atomic<int> swapped_{0};
    std::mutex mutex_;  // guards routes_
    std::vector<Route> routes_;
    std::thread thread_;
};

}  // namespace kelp::test
