// Times the popover's opening from a tray click as an X client sees it: sends
// org.kde.StatusNotifierItem.Activate to the item (what a desktop's tray does on
// a click), then waits for a top-level window named "Velmora" to be mapped and
// for the first damage (drawing) into it. Closes it with a second Activate
// and waits for the unmap before the next click.
// Usage: bench_popover_click_probe <bus name> <clicks>; prints one line per
// click: "<ms to map> <ms to first paint>".
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xdamage.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

bool isPopover(Display* display, Window window) {
    char* name = nullptr;
    const bool match = XFetchName(display, window, &name) && name && !std::strcmp(name, "Velmora");
    XFree(name);
    return match;
}

void activate(sd_bus* bus, const char* item) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    // Asynchronous in effect: the reply comes before the window, so waiting
    // for it here costs nothing the click would not.
    if (sd_bus_call_method(bus, item, "/StatusNotifierItem", "org.kde.StatusNotifierItem",
                           "Activate", &error, &reply, "ii", 100, 5) < 0) {
        std::fprintf(stderr, "Activate failed: %s\n", error.message);
        std::exit(1);
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
}

// Next X event, or false after timeoutMs.
bool nextEvent(Display* display, XEvent& event, int timeoutMs) {
    const auto start = Clock::now();
    while (!XPending(display)) {
        const int left = timeoutMs - static_cast<int>(msSince(start));
        if (left <= 0)
            return false;
        pollfd fd{ConnectionNumber(display), POLLIN, 0};
        poll(&fd, 1, left);
    }
    XNextEvent(display, &event);
    return true;
}

// Whether the window shows drawn content rather than one fill colour (a
// server-side background clear also reports damage).
// A window being unmapped or partly off screen fails GetImage: not drawn yet.
int ignoreError(Display*, XErrorEvent*) {
    return 0;
}

bool drawn(Display* display, Window window) {
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display, window, &attributes))
        return false;
    XImage* image =
        XGetImage(display, window, 0, 0, attributes.width, attributes.height, AllPlanes, ZPixmap);
    if (!image)
        return false;
    const unsigned long first = XGetPixel(image, 0, 0);
    bool varied = false;
    for (int y = 0; y < image->height && !varied; y += 2)
        for (int x = 0; x < image->width && !varied; x += 2)
            varied = XGetPixel(image, x, y) != first;
    XDestroyImage(image);
    return varied;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <bus name> <clicks>\n", argv[0]);
        return 2;
    }
    Display* display = XOpenDisplay(nullptr);
    int damageEvent = 0, damageError = 0;
    if (!display || !XDamageQueryExtension(display, &damageEvent, &damageError)) {
        std::fprintf(stderr, "no display with the DAMAGE extension\n");
        return 1;
    }
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) {
        std::fprintf(stderr, "no session bus\n");
        return 1;
    }
    XSetErrorHandler(ignoreError);
    XSelectInput(display, DefaultRootWindow(display), SubstructureNotifyMask);
    XSync(display, False);

    Window popover = 0;
    Damage damage = 0;
    for (int click = 0, clicks = std::atoi(argv[2]); click < clicks; ++click) {
        const auto start = Clock::now();
        activate(bus, argv[1]);
        double mapped = -1, painted = -1;
        XEvent event;
        while (painted < 0) {
            if (!nextEvent(display, event, 5000)) {
                std::fprintf(stderr, "click %d: no painted popover after 5 s\n", click + 1);
                return 1;
            }
            if (event.type == MapNotify && mapped < 0 &&
                (event.xmap.window == popover ||
                 (!popover && isPopover(display, event.xmap.window)))) {
                mapped = msSince(start);
                if (!popover) {
                    popover = event.xmap.window;
                    damage = XDamageCreate(display, popover, XDamageReportNonEmpty);
                }
            } else if (event.type == damageEvent + XDamageNotify && mapped >= 0 &&
                       reinterpret_cast<XDamageNotifyEvent&>(event).drawable == popover) {
                const double at = msSince(start);
                if (drawn(display, popover))
                    painted = at;
            }
            // Drawing before the map (none expected) or for another window is
            // not the popover's frame.
            if (damage && event.type == damageEvent + XDamageNotify)
                XDamageSubtract(display, damage, None, None);
        }
        std::printf("%.2f %.2f\n", mapped, painted);
        std::fflush(stdout);

        // Closed by a second click; the next one starts once it is unmapped.
        activate(bus, argv[1]);
        for (;;) {
            if (!nextEvent(display, event, 5000)) {
                std::fprintf(stderr, "click %d: the popover did not close\n", click + 1);
                return 1;
            }
            if (event.type == UnmapNotify && event.xunmap.window == popover)
                break;
            if (damage && event.type == damageEvent + XDamageNotify)
                XDamageSubtract(display, damage, None, None);
        }
        // The app's own work after closing (focus, timers) settles, as
        // between two real clicks.
        std::fflush(stdout);
        struct timespec pause {
            0, 300'000'000
        };
        nanosleep(&pause, nullptr);
        while (XPending(display)) {
            XNextEvent(display, &event);
            if (event.type == damageEvent + XDamageNotify)
                XDamageSubtract(display, damage, None, None);
        }
    }
    sd_bus_unref(bus);
    XCloseDisplay(display);
    return 0;
}
