// Makes the media files that the end-to-end tests play; run once before them.

#include "e2e/media.h"

int main() {
    return kelp::test::makeMedia() ? 0 : 1;
}
