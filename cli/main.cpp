#include <cstdio>

int main()
{
    std::fputs("veltan: no command yet\n", stderr);
    return 2;
}
