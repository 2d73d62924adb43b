#include "CommandLine.h"

int main(int argc, char* argv[]) {
    return CommandLine::run(argc, argv);
}
