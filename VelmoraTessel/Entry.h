// Chooses the program's form: the tray application, or one timed capture with
// no window that ends with an exit status.
#pragma once

#include <QString>

namespace tessel::app {

struct Entry {
    static int main(int argc, char** argv);
    static QString usageText();
};

} // namespace tessel::app
