/* program.c - a program that was built together with the library. Prints the library's version. */
#include <stdio.h>
#include <zncontainer.h>

int main(void)
{
    return puts(zncVersionGet()) < 0;
}
