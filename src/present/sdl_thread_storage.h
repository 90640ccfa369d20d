#pragma once

namespace kelp {

// SDL keeps storage for each thread that calls it, such as its error text, and frees it by itself for threads of its
// own alone. Has that of the calling thread freed when the thread ends, and not before: other users of SDL on the same
// thread go on with theirs.
void freeSdlStorageAtThreadEnd();

}  // namespace kelp
