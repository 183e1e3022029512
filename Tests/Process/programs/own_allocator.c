// An allocator that replaces libc's, as real programs link or preload one: neither takes back what the other
// gave.
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#define ARENA_SIZE (256UL << 20)
#define ALIGNMENT 16UL
#define MARK 0x6f776e2d616c6c6fUL

// In front of each block.
struct Head
{
    size_t m_size;
    uint64_t m_mark;
};

static char g_arena[ARENA_SIZE] __attribute__((aligned(4096)));
static size_t g_used;

static void* Take(size_t alignment, size_t size)
{
    if (alignment < ALIGNMENT)
        alignment = ALIGNMENT;
    size_t room = size + sizeof(struct Head) + alignment;
    size_t start =
        __atomic_fetch_add(&g_used, (room + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT, __ATOMIC_RELAXED);
    if (size > ARENA_SIZE || start + room > ARENA_SIZE)
    {
        errno = ENOMEM;
        return NULL;
    }
    uintptr_t block =
        ((uintptr_t)g_arena + start + sizeof(struct Head) + alignment - 1) / alignment * alignment;
    struct Head* pHead = (struct Head*)block - 1;
    pHead->m_size = size;
    pHead->m_mark = MARK;
    return (void*)block;
}

static struct Head* HeadOf(void* pBlock)
{
    static const char message[] = "own_allocator: a block that another allocator gave\n";
    struct Head* pHead = (struct Head*)pBlock - 1;
    if ((char*)pBlock < g_arena || (char*)pBlock >= g_arena + ARENA_SIZE || pHead->m_mark != MARK)
    {
        (void)!write(STDERR_FILENO, message, sizeof(message) - 1);
        __builtin_trap();
    }
    return pHead;
}

void* malloc(size_t size)
{
    return Take(ALIGNMENT, size);
}

void* calloc(size_t count, size_t size)
{
    return Take(ALIGNMENT, count * size); // the arena is zero and never given twice
}

void free(void* pBlock)
{
    if (pBlock != NULL)
        HeadOf(pBlock)->m_mark = 0;
}

void* realloc(void* pBlock, size_t size)
{
    if (pBlock == NULL)
        return malloc(size);
    size_t old = HeadOf(pBlock)->m_size;
    void* pNew = malloc(size);
    if (pNew != NULL)
        memcpy(pNew, pBlock, old < size ? old : size);
    return pNew;
}

void* memalign(size_t alignment, size_t size)
{
    return Take(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return Take(alignment, size);
}

int posix_memalign(void** ppBlock, size_t alignment, size_t size)
{
    *ppBlock = Take(alignment, size);
    return *ppBlock == NULL ? ENOMEM : 0;
}
