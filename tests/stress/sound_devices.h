#pragma once

namespace kelp::test {

// Takes all sound devices of the process away: what plays on one loses it, and none can be opened until they are given
// back. Any thread.
void takeSoundDevices(bool away);

}  // namespace kelp::test
