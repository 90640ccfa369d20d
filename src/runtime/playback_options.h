#pragma once

namespace kelp {

// What a host wants done in another way than the standard one, read from the texts of KelpPlayer::setOption. A member
// says what its field is named there; at first all is the standard.
//
// Each stage gets a copy when the option comes into force, so none changes under it.
struct PlaybackOptions {
    bool sharedPictures = false;  // "pictures": pictures stay in the decoder's memory where that can be

    bool operator==(const PlaybackOptions&) const = default;
};

}  // namespace kelp
