#pragma once

#include <netinet/in.h>

namespace kelp::test {

// An even port that nobody has open on any address, and the next one, which is free too. It lies below those that the
// system gives to sockets that name none, and no other call gets it, in this process or another, until this one ends.
// `socketType` is SOCK_STREAM or SOCK_DGRAM. Ends the test program if there is none.
int freePortPair(int socketType);

// The port at 127.0.0.1.
sockaddr_in loopbackAddress(int port);

}  // namespace kelp::test
