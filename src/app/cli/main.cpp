#include "app/cli/Cli.h"
#include "app/gui/Gui.h"

int main(int argc, char** argv) {
    return quillon::cli::run(argc, argv, quillon::gui::run);
}
