// Says its arguments, one a line, and ends with status 7.
#include <stdio.h>

int main(int count, char** ppArguments)
{
    puts("plain");
    for (int i = 1; i < count; ++i)
    {
        puts(ppArguments[i]);
    }
    fputs("to standard error\n", stderr);
    return 7;
}
