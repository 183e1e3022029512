// Stands for a preloaded allocator: only its file name matters.
int ZorvTestNothing(void);

int ZorvTestNothing(void)
{
    return 0;
}
