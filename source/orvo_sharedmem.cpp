#define ORVO_SOURCE "orvo_sharedmem"
#include "orvo_sharedmem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace orvo {

unsigned long GetOSC()
{
    return 0;
}

void ToggleWD()
{
    const char* path = std::getenv("ORVO_WATCHDOG_DEVICE");
    int fd = ::open(path != nullptr && *path != '\0' ? path : "/dev/watchdog", O_RDWR | O_CLOEXEC);
    // Descriptor 0 is deliberately not used: the device code only feeds the
    // watchdog through a descriptor above 0.
    if (fd > 0) {
        const unsigned char feed = 0x01;
        ssize_t written = ::write(fd, &feed, 1);
        (void)written;
        ::close(fd);
    } else if (fd == 0) {
        ::close(fd);
    }
}

}  // namespace orvo
