#pragma once

namespace tessel::app {

// The application form: a tray icon with its menu, until the full shell lands.
int runTrayApp(int argc, char** argv);

} // namespace tessel::app
