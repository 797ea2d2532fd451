#include "app/cli/Cli.h"

int main(int argc, char** argv) {
    return quillon::cli::run(argc, argv);
}
