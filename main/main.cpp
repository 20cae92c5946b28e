#include "main/last_word.h"
#include "main/program.h"

int main(int argc, char* argv[]) {
    install_last_word();
    return run_program(argc, argv);
}
