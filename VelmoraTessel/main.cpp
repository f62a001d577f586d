#include "Entry.h"

int main(int argc, char** argv) {
    return tessel::app::Entry::main(argc, argv);
}
