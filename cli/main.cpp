#include "cli/Cli.h"

#include <iostream>

int main(int argc, char** argv)
{
    return veltan_cli::RunVeltan(argc, argv, VELTAN_DATA_DIR "/wine.csv", std::cout, std::cerr);
}
