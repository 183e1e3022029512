// Stands for the OpenMP agent: every call belongs to parallel region 77.
#include <stdint.h>

uint64_t ZorvGetOpenMPParId(void);

uint64_t ZorvGetOpenMPParId(void)
{
    return 77;
}
