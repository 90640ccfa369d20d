#include "decode/decoded_frame.h"

namespace kelp {

DecodedFrame::~DecodedFrame() {
    if (freeBuffer && buffer) {
        freeBuffer(buffer);
    }
}

}  // namespace kelp
