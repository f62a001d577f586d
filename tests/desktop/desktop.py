"""A private desktop for the real VelmoraTessel: its own session bus, X display,
accessibility bus, keyring, sound server, notification server and local
meet/auth/notify server. Tests start the program on it and use it as a person
does: through the accessibility tree and the keyboard.

The build's bin folder comes from TESSEL_BIN; TESSEL_ARTIFACTS names a folder
for the screenshots and logs of a failed test.
"""
import atexit
import ctypes
import json
import os
import pathlib
import shutil
import signal
import ssl
import subprocess
import tempfile
import time
import unittest
import urllib.request

BIN = pathlib.Path(os.environ.get('TESSEL_BIN', pathlib.Path(__file__).resolve().parents[2] / 'build' / 'bin'))
HERE = pathlib.Path(__file__).resolve().parent
BUS_CONFIG = HERE.parent / 'keyring' / 'private-bus.conf'
KEYRING_PASSWORD = b'velmora-test'
ORG = 'acme.velmora.test'
# What a sanitizer build prints when it finds a fault.
SANITIZER_MARKS = ('ERROR: AddressSanitizer', 'ERROR: LeakSanitizer', 'runtime error:',
                   'WARNING: ThreadSanitizer')


def wait_until(check, timeout=20.0, step=0.1, what='condition'):
    """The first true value of `check()`, or an AssertionError after `timeout`."""
    deadline = time.monotonic() + timeout
    while True:
        try:
            value = check()
        except Exception:  # a half-built accessible tree, a server not up yet
            value = None
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f'timed out after {timeout:.0f} s waiting for {what}')
        time.sleep(step)


def die_with_parent():
    """In a child before exec: killed when the test process ends, however it
    ends, so no daemon outlives it holding the test runner's output open."""
    ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class SessionBus:
    """One private session bus with its accessibility bus per test process: the
    accessibility library connects once per process and never lets go."""
    _address = None

    @classmethod
    def address(cls):
        if cls._address is None:
            folder = pathlib.Path(tempfile.mkdtemp(prefix='tessel-bus-'))
            # The launcher puts its socket at $XDG_RUNTIME_DIR/at-spi/bus (else under
            # ~/.cache): a folder of its own, or two test processes share one bus.
            env = {k: v for k, v in os.environ.items() if not k.startswith(('DBUS_', 'DISPLAY'))}
            env['XDG_RUNTIME_DIR'] = str(folder)
            with open(folder / 'bus.err', 'wb') as err:
                bus = subprocess.Popen(['dbus-daemon', '--nofork', '--print-address=1',
                                        f'--config-file={BUS_CONFIG}'], env=env, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=err, preexec_fn=die_with_parent)
            cls._address = bus.stdout.readline().decode().strip()
            env['DBUS_SESSION_BUS_ADDRESS'] = cls._address
            with open(folder / 'a11y.err', 'wb') as err:
                a11y = subprocess.Popen(['/usr/libexec/at-spi-bus-launcher', '--launch-immediately'], env=env,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err,
                                        preexec_fn=die_with_parent)

            # Ready once its own bus answers: a client that comes earlier waits
            # for a reply that never comes and gives up on accessibility.
            def a11y_bus_answers():
                asked = subprocess.run(['gdbus', 'call', '--session', '--dest', 'org.a11y.Bus', '--object-path',
                                        '/org/a11y/bus', '--method', 'org.a11y.Bus.GetAddress'],
                                       env=env, capture_output=True, timeout=10)
                if asked.returncode != 0:
                    return False
                address = asked.stdout.decode().split("'")[1]
                return subprocess.run(['gdbus', 'call', '--address', address, '--dest', 'org.freedesktop.DBus',
                                       '--object-path', '/org/freedesktop/DBus', '--method',
                                       'org.freedesktop.DBus.GetId'], capture_output=True, timeout=10).returncode == 0
            wait_until(a11y_bus_answers, 30, 0.2, 'the accessibility bus')

            def stop():
                for proc in (a11y, bus):
                    proc.terminate()
                    proc.wait(5)
                shutil.rmtree(folder, ignore_errors=True)
            atexit.register(stop)
        return cls._address


PANEL = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="28"/>
      <property name="plugin-ids" type="array"><value type="int" value="1"/></property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray"/>
  </property>
</channel>
"""


class Desktop:
    """`keyring`: 'unlocked', 'none' (no Secret Service on the bus). `shell`:
    None (a bare display: the program shows its popover as a window) or 'xfce'
    (xfwm4 and an xfce4-panel whose tray hosts the program's item)."""

    def __init__(self, keyring='unlocked', sound=False, shell=None, size='1280x800'):
        self.size = size
        self.keyring = keyring
        self.sound = sound
        self.shell = shell
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix='tessel-desktop-'))
        self.procs = []
        self.app = None
        self.app_err = None
        home = self.dir / 'home'
        run = self.dir / 'run'
        for folder in (home, run, self.dir / 'config', self.dir / 'data', self.dir / 'state'):
            folder.mkdir(mode=0o700)
        self.env = {k: v for k, v in os.environ.items()
                    if not k.startswith(('DBUS_', 'XDG_', 'WAYLAND', 'PULSE', 'VELMORA'))}
        self.env.update(HOME=str(home), XDG_RUNTIME_DIR=str(run), XDG_CONFIG_HOME=str(self.dir / 'config'),
                        XDG_DATA_HOME=str(self.dir / 'data'), XDG_STATE_HOME=str(self.dir / 'state'),
                        QT_QPA_PLATFORM='xcb', QT_LINUX_ACCESSIBILITY_ALWAYS_ON='1', NO_AT_BRIDGE='0',
                        BROWSER=str(self._browser()),
                        # Log lines go to the state folder's file, where a test reads them.
                        VELMORA_TESSEL_JOURNAL_SOCKET=str(self.dir / 'no-journal'))
        self.env.pop('DISPLAY', None)

    # -- lifetime ---------------------------------------------------------------

    def start(self):
        self.env['DBUS_SESSION_BUS_ADDRESS'] = SessionBus.address()
        self._display()
        if self.shell == 'xfce':
            self._xfce()
        if self.keyring == 'unlocked':
            self._keyring()
        if self.sound:
            self._pulse()
        self._devserver()
        self.notifications_file = self.dir / 'notifications.jsonl'
        notifyd = self.spawn([str(BIN / 'velmora-notifyd'), '--record', str(self.notifications_file)],
                             'notifyd', stdout=subprocess.PIPE)
        assert b'ready' in notifyd.stdout.readline()
        return self

    def stop(self):
        if self.app and self.app.poll() is None:
            self.app.kill()
            self.app.wait()
        for proc in reversed(self.procs):
            if proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(5)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

    def spawn(self, argv, name, env=None, **kwargs):
        files = []
        for stream, suffix in (('stdout', 'out'), ('stderr', 'err')):
            if stream not in kwargs:
                files.append(open(self.dir / f'{name}.{suffix}', 'wb'))
                kwargs[stream] = files[-1]
        kwargs.setdefault('stdin', subprocess.DEVNULL)
        kwargs.setdefault('preexec_fn', die_with_parent)
        proc = subprocess.Popen(argv, env=env or self.env, **kwargs)
        for file in files:
            file.close()  # the child has its own
        self.procs.append(proc)
        return proc

    def run(self, argv, **kwargs):
        if 'input' not in kwargs:
            kwargs['stdin'] = subprocess.DEVNULL
        return subprocess.run(argv, env=self.env, capture_output=True, timeout=60, **kwargs)

    def _display(self):
        read, write = os.pipe()
        self.spawn(['Xvfb', '-displayfd', str(write), '-screen', '0', f'{self.size}x24', '-nolisten', 'tcp'],
                   'xvfb', pass_fds=(write,))
        os.close(write)
        with os.fdopen(read) as displays:
            self.env['DISPLAY'] = ':' + displays.readline().strip()

    def _xfce(self):
        channels = self.dir / 'config' / 'xfce4' / 'xfconf' / 'xfce-perchannel-xml'
        channels.mkdir(parents=True)
        (channels / 'xfce4-panel.xml').write_text(PANEL)
        self.spawn(['/usr/lib/x86_64-linux-gnu/xfce4/xfconf/xfconfd'], 'xfconfd')
        wait_until(lambda: self.run(['gdbus', 'introspect', '--session', '--dest', 'org.xfce.Xfconf',
                                     '--object-path', '/org/xfce/Xfconf']).returncode == 0,
                   what='xfconfd on the bus')
        self.spawn(['xfwm4'], 'xfwm4')
        self.spawn(['xfce4-panel'], 'panel')
        wait_until(lambda: self.run(['gdbus', 'introspect', '--session', '--dest',
                                     'org.kde.StatusNotifierWatcher', '--object-path',
                                     '/StatusNotifierWatcher']).returncode == 0,
                   what='the panel\'s tray')

    def _keyring(self):
        # The daemon's sockets live in its own runtime folder (XDG_RUNTIME_DIR/keyring).
        daemon = self.spawn(['gnome-keyring-daemon', '--foreground', '--unlock', '--components=secrets'],
                            'keyring', stdin=subprocess.PIPE)
        daemon.stdin.write(KEYRING_PASSWORD)
        daemon.stdin.close()
        wait_until(self.secrets_on_bus, what='the keyring on the bus')

    def _pulse(self):
        run = pathlib.Path(self.env['XDG_RUNTIME_DIR'])
        socket = run / 'pulse-native'
        self.env['PULSE_SERVER'] = f'unix:{socket}'
        self.spawn(['pulseaudio', '-n', '--daemonize=no', '--exit-idle-time=-1', '--use-pid-file=no',
                    '-L', f'module-native-protocol-unix socket={socket} auth-anonymous=1',
                    '-L', 'module-null-sink sink_name=speakers rate=48000 channels=2',
                    '-L', 'module-null-sink sink_name=micsink channels=1',
                    '-L', 'module-remap-source source_name=mic master=micsink.monitor'], 'pulse')
        wait_until(lambda: self.run(['pactl', 'info']).returncode == 0, what='the sound server')
        self.run(['pactl', 'set-default-sink', 'speakers'])
        self.run(['pactl', 'set-default-source', 'mic'])

    def _devserver(self):
        server = self.spawn([str(BIN / 'velmora-devserver'), '--https', '--data-dir', str(self.dir / 'server')],
                            'devserver', stdout=subprocess.PIPE)
        ready = server.stdout.readline().decode().split()
        assert ready[:2] == ['velmora-devserver', 'ready'], ready
        self.origin = ready[2]
        cert = next(word.split('=', 1)[1] for word in ready if word.startswith('cert='))
        self.tls = ssl.create_default_context(cafile=cert)
        endpoints = self.dir / 'endpoints.json'
        endpoints.write_text(json.dumps({
            'default_org_host': ORG, 'org_origin': self.origin, 'auth_service_url': self.origin,
            'notify_service_url': self.origin + '/notify',
            'update_feed_url': self.origin + '/update/feed.json', 'ca_file': cert}))
        self.env['VELMORA_TESSEL_ENDPOINTS'] = str(endpoints)

    def _browser(self):
        """A stand-in browser that writes down each address it is asked to open."""
        script = self.dir / 'browser'
        script.write_text(f'#!/bin/sh\necho "$1" >> {self.dir}/opened.txt\n')
        script.chmod(0o755)
        return script

    # -- the program ------------------------------------------------------------

    def start_app(self, *args, env=None):
        self.app_err = self.dir / 'app.err'
        leaks = {'LSAN_OPTIONS': f'suppressions={HERE / "lsan.supp"}'}
        with open(self.app_err, 'wb') as err:
            self.app = subprocess.Popen([str(BIN / 'VelmoraTessel'), *args], env={**self.env, **leaks, **(env or {})},
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err,
                                        preexec_fn=die_with_parent)
        return self.app

    def end_app(self, sig=signal.SIGTERM, timeout=15):
        """Sends `sig` and returns the exit status."""
        self.app.send_signal(sig)
        return self.app.wait(timeout)

    def app_stderr(self):
        return self.app_err.read_text(errors='replace') if self.app_err else ''

    def sanitizer_report(self):
        text = self.app_stderr()
        return next((text[text.index(mark):][:3000] for mark in SANITIZER_MARKS if mark in text), None)

    def log(self):
        """The program's log file (there is no journal on a test machine)."""
        path = self.dir / 'state' / 'velmora' / 'tessel.log'
        return path.read_text(errors='replace') if path.exists() else ''

    def opened(self):
        path = self.dir / 'opened.txt'
        return path.read_text().split() if path.exists() else []

    # -- the servers ------------------------------------------------------------

    def control(self, route, body=None, method=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(f'{self.origin}/_control/{route}', data=data,
                                         method=method or ('GET' if data is None else 'POST'),
                                         headers={'Content-Type': 'application/json'})
        with urllib.request.urlopen(request, context=self.tls, timeout=10) as answer:
            return json.loads(answer.read() or b'null')

    def requests(self, route=None):
        """What the local server received, oldest first; of one route when given."""
        entries = self.control('log')
        entries = entries.get('entries', entries) if isinstance(entries, dict) else entries
        return [e for e in entries if route is None or e.get('route') == route]

    def notifications(self, call='Notify'):
        if not self.notifications_file.exists():
            return []
        lines = self.notifications_file.read_text().splitlines()
        return [entry for entry in map(json.loads, lines) if entry.get('call') == call]

    def notifyd(self, method, *args):
        """An order to the stand-in notification server, e.g. InvokeAction(id, key)."""
        return self.run(['gdbus', 'call', '--session', '--dest', 'org.freedesktop.Notifications',
                         '--object-path', '/control', '--method', f'ai.velmora.Notifyd.{method}', '--',
                         *map(str, args)])

    # -- the keyring ------------------------------------------------------------

    def secrets_on_bus(self):
        answer = self.run(['dbus-send', '--session', '--print-reply', '--dest=org.freedesktop.DBus',
                           '/org/freedesktop/DBus', 'org.freedesktop.DBus.NameHasOwner',
                           'string:org.freedesktop.secrets'])
        return b'true' in answer.stdout

    def save_session(self, token='vses_desktoptest0001', host=ORG, days=1):
        """A signed-in member, as a finished sign-in leaves it in the keyring."""
        expires = time.time() - 978307200 + days * 86400  # seconds since 2001
        stored = self.run(['secret-tool', 'store', f'--label=Velmora Tessel — {host}',
                           'service', 'ai.velmora.tessel', 'account', host],
                          input=json.dumps({'token': token, 'expiresAt': expires}).encode())
        assert stored.returncode == 0, stored.stderr
        return token

    def lock_keyring(self):
        locked = self.run(['gdbus', 'call', '--session', '--dest', 'org.freedesktop.secrets',
                           '--object-path', '/org/freedesktop/secrets', '--method',
                           'org.freedesktop.Secret.Service.Lock', "['/org/freedesktop/secrets/collection/login']"])
        assert locked.returncode == 0, locked.stderr

    def keyring_locked(self):
        answer = self.run(['gdbus', 'call', '--session', '--dest', 'org.freedesktop.secrets', '--object-path',
                           '/org/freedesktop/secrets/collection/login', '--method',
                           'org.freedesktop.DBus.Properties.Get', 'org.freedesktop.Secret.Collection', 'Locked'])
        return b'true' in answer.stdout

    # -- pointer and keys -------------------------------------------------------

    def xdotool(self, *args):
        return self.run(['xdotool', *map(str, args)]).stdout.decode()

    def click(self, x, y, button=1):
        # A panel's button takes a click only after the pointer has entered it.
        self.xdotool('mousemove', x, y, 'sleep', '0.3', 'click', button)

    def keys(self, *keys):
        self.xdotool('key', '--delay', '80', *keys)

    def tray_icon(self):
        """Where the program's item stands in the panel's tray: its middle."""
        def find():
            for window in self.xdotool('search', '--onlyvisible', '--name', '^wrapper-2.0$').split():
                geometry = self.run(['xwininfo', '-id', window]).stdout.decode()
                values = dict(line.strip().split(':', 1) for line in geometry.splitlines() if ':' in line)
                width, height = int(values['Width']), int(values['Height'])
                if 16 <= width <= 64 and height <= 40:
                    x, y = int(values['Absolute upper-left X']), int(values['Absolute upper-left Y'])
                    return x + width // 2, y + height // 2
            return None
        return wait_until(find, what='the item in the tray')

    def shown_windows(self):
        """Titles of the program's windows on screen; a menu bears the program's name."""
        ids = self.xdotool('search', '--onlyvisible', '--class', 'VelmoraTessel').split()
        titles = []
        for window in ids:
            info = self.run(['xwininfo', '-id', window]).stdout.decode()
            if 'IsViewable' in info and 'Width: 1\n' not in info and 'Width: 3\n' not in info:
                titles.append(self.xdotool('getwindowname', window).strip())
        return titles

    def menu_open(self):
        return 'VelmoraTessel' in self.shown_windows()

    # -- what a person sees -----------------------------------------------------

    def screenshot(self, path):
        self.run([str(BIN / 'velmora-screengrab'), str(path)])


class Screen:
    """The program as the accessibility bus shows it to a screen reader."""

    def __init__(self, desktop):
        import pyatspi  # only the tests that read the screen need it
        self.pyatspi = pyatspi
        self.desktop = desktop
        os.environ['DBUS_SESSION_BUS_ADDRESS'] = desktop.env['DBUS_SESSION_BUS_ADDRESS']
        os.environ['DISPLAY'] = desktop.env['DISPLAY']

    def application(self):
        return wait_until(lambda: next((a for a in self.pyatspi.Registry.getDesktop(0)
                                        if a and a.name == 'VelmoraTessel'), None),
                          what='the program on the accessibility bus')

    def all(self, role=None, name=None, within=None):
        """Every showing accessible of `role` (e.g. 'push button') whose name is
        `name` (or contains it, for a name ending in '…*')."""
        found = []

        def matches(node):
            if role and node.getRoleName() != role:
                return False
            if name is None:
                return True
            if name.endswith('*'):
                return name[:-1] in (node.name or '')
            return node.name == name

        def walk(node, depth=0):
            if node is None or depth > 40:
                return
            try:
                if not node.getState().contains(self.pyatspi.STATE_SHOWING) and depth > 1:
                    return
                if matches(node):
                    found.append(node)
                for child in node:
                    walk(child, depth + 1)
            except Exception:  # a node gone while walking
                return

        walk(within or self.application())
        return found

    def find(self, role=None, name=None, within=None, timeout=20):
        return wait_until(lambda: next(iter(self.all(role, name, within)), None), timeout,
                          what=f'{role or "anything"} "{name}"')

    def dump(self, node=None, depth=0):
        """The tree as a screen reader walks it, one line per accessible."""
        node = node or self.application()
        lines = [f"{'  ' * depth}{node.getRoleName()} {node.name!r}"]
        for child in node:
            lines += self.dump(child, depth + 1).splitlines() if child else []
        return '\n'.join(lines)

    def texts(self, within=None):
        return [node.name for node in self.all(role='label', within=within) if node.name]

    def press(self, role, name, within=None, timeout=20):
        node = self.find(role, name, within, timeout)
        node.queryAction().doAction(0)
        return node

    def centre(self, node):
        x, y, width, height = node.queryComponent().getExtents(self.pyatspi.DESKTOP_COORDS)
        return x + width // 2, y + height // 2

    def click(self, node, button=1):
        """A click with the pointer in the middle of `node`."""
        self.desktop.click(*self.centre(node), button)

    def type_into(self, node, text):
        node.queryEditableText().setTextContents(text)

    def window(self, title, timeout=20):
        """A top-level window by its title (Qt gives a plain window the role filler)."""
        def shown():
            return next((w for w in self.application() if w and w.name == title
                         and w.getState().contains(self.pyatspi.STATE_SHOWING)), None)
        return wait_until(shown, timeout, what=f'the window "{title}" on screen')


class DesktopTest(unittest.TestCase):
    """Starts a private desktop per test and keeps its pictures and logs when
    the test fails."""
    keyring = 'unlocked'
    sound = False
    shell = None
    size = '1280x800'

    def setUp(self):
        self.desktop = Desktop(keyring=self.keyring, sound=self.sound, shell=self.shell, size=self.size).start()
        self.addCleanup(self.desktop.stop)
        self.addCleanup(self._keep_on_failure)

    def screen(self):
        return Screen(self.desktop)

    def picture(self, name):
        """With TESSEL_PICTURES naming a folder, the whole screen as NAME.png there."""
        folder = os.environ.get('TESSEL_PICTURES')
        if folder:
            pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
            self.desktop.screenshot(pathlib.Path(folder) / f'{name}.png')

    def _keep_on_failure(self):
        outcome = getattr(self, '_outcome', None)
        result = getattr(outcome, 'result', None)
        failed = result and any(test is self for test, _ in result.failures + result.errors)
        if not failed:
            return
        folder = pathlib.Path(os.environ.get('TESSEL_ARTIFACTS', tempfile.gettempdir())) / self.id()
        folder.mkdir(parents=True, exist_ok=True)
        self.desktop.screenshot(folder / 'screen.png')
        for name in ('app.err', 'devserver.err', 'keyring.err', 'panel.err', 'xfwm4.err', 'notifications.jsonl'):
            if (self.desktop.dir / name).exists():
                shutil.copy(self.desktop.dir / name, folder / name)
        (folder / 'tessel.log').write_text(self.desktop.log())
        print(f'\nkept the screen and logs of {self.id()} in {folder}')

    def assertNoSanitizerReport(self):
        report = self.desktop.sanitizer_report()
        self.assertIsNone(report, report)
