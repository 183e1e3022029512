// Says what it was started with: its arguments, and its environment as far as the tests change it.
#include <stdio.h>
#include <string.h>

extern char** environ;

int main(int count, char** ppArguments)
{
    for (int i = 0; i < count; ++i)
    {
        printf("argument %s\n", ppArguments[i]);
    }
    for (char** ppEntry = environ; ppEntry && *ppEntry; ++ppEntry)
    {
        if (strncmp(*ppEntry, "LD_PRELOAD", 10) == 0 || strncmp(*ppEntry, "ZORV_TEST", 9) == 0)
        {
            printf("variable %s\n", *ppEntry);
        }
    }
    return 81;
}
