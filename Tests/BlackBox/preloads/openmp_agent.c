// Stands for the OpenMP agent: every call belongs to parallel region 77. It is careless of errno.
#include <errno.h>
#include <stdint.h>

uint64_t ZorvGetOpenMPParId(void);

uint64_t ZorvGetOpenMPParId(void)
{
    errno = EDOM;
    return 77;
}
