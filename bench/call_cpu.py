#!/usr/bin/python3
"""What a call costs the tray program as a person runs it, on the private xfce
desktop of the end-to-end tests (xfwm4, xfce4-panel's tray, a private sound
server playing noise as the far end): CPU per second over SECONDS (30) with
the popover open and as long with it closed, then resident memory after the
call has been stopped and the program left alone for IDLE (60) seconds.

    bench/call_cpu.py [BIN]      BIN: the build's bin folder (default build/bin)
"""
import os
import pathlib
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / 'tests' / 'desktop'))
if len(sys.argv) > 1:
    os.environ['TESSEL_BIN'] = str(pathlib.Path(sys.argv[1]).resolve())
import desktop  # noqa: E402  (after TESSEL_BIN is known)

SECONDS = float(os.environ.get('SECONDS_EACH', 30))
IDLE = float(os.environ.get('IDLE', 60))
TICKS = os.sysconf('SC_CLK_TCK')


def cpu_seconds(pid):
    fields = pathlib.Path(f'/proc/{pid}/stat').read_text().rsplit(')', 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def resident_mb(pid):
    for line in pathlib.Path(f'/proc/{pid}/status').read_text().splitlines():
        if line.startswith('VmRSS:'):
            return int(line.split()[1]) / 1024
    return 0.0


def over(pid, seconds):
    start, began = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - start) / (time.monotonic() - began)


def main():
    d = desktop.Desktop(sound=True, shell='xfce').start()
    try:
        d.save_session()
        app = d.start_app()
        screen = desktop.Screen(d)
        screen.application()
        time.sleep(5)  # the launch jobs end

        def popover(shown):
            for _ in range(3):
                if ('Velmora' in d.shown_windows()) == shown:
                    return
                d.click(*d.tray_icon())
                time.sleep(1.5)
            raise SystemExit('the popover would not ' + ('open' if shown else 'close'))

        popover(True)
        screen.press('push button', 'Take notes on this call…', screen.window('Velmora'))
        window = screen.window('Take notes on this call')
        fields = screen.all('text', within=window)
        screen.type_into(fields[0], 'Bench call')
        screen.type_into(fields[1], 'Globex')
        screen.press('check box', 'I have shared this disclosure*', window)
        screen.press('push button', 'Start', window)
        desktop.wait_until(lambda: d.requests('request'), 30, what='the recording requested')
        noise = subprocess.Popen(['pacat', '--playback', '--device=speakers', '--raw', '--format=s16le',
                                  '--rate=48000', '--channels=2'], env=d.env, stdin=open('/dev/urandom', 'rb'),
                                 stderr=subprocess.DEVNULL)
        time.sleep(3)
        popover(True)
        shown = over(app.pid, SECONDS)
        popover(False)
        hidden = over(app.pid, SECONDS)
        popover(True)
        screen.press('push button', 'Stop & write notes', screen.window('Velmora'))
        desktop.wait_until(lambda: d.requests('end'), 30, what='the call ended')
        noise.terminate()
        popover(False)
        time.sleep(IDLE)
        print(f'during a call: {100 * shown:.1f}% of a core with the popover open, '
              f'{100 * hidden:.1f}% with it closed ({SECONDS:.0f} s each)')
        print(f'resident memory {IDLE:.0f} s after the call: {resident_mb(app.pid):.1f} MB')
        d.end_app()
    finally:
        d.stop()


if __name__ == '__main__':
    main()
