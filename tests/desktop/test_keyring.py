"""The keyring as desktops have it: one that locks in the middle of a call, and
none at all."""
import time
import unittest
import urllib.parse

from desktop import DesktopTest, wait_until

LOST_SIGN_IN = 'Your sign-in is no longer valid'


def start_call(screen, title='Weekly sync', counterpart='Acme'):
    screen.press('push button', 'Take notes on this call…')
    window = screen.window('Take notes on this call')
    screen.type_into(screen.find('text', 'Call name', window), title)
    screen.type_into(screen.find('text', 'Who is on the other side?', window), counterpart)
    screen.press('check box', 'I have shared this disclosure*', window)
    screen.press('push button', 'Start', window)


class LockedKeyring(DesktopTest):
    sound = True

    def test_a_keyring_locked_during_a_call_neither_pauses_it_nor_keeps_it_open(self):
        d = self.desktop
        d.save_session()
        d.start_app()
        screen = self.screen()
        start_call(screen)
        wait_until(lambda: d.requests('complete'), 30, 0.5, 'the first segment stored')

        d.lock_keyring()
        self.assertTrue(d.keyring_locked())
        stored = len(d.requests('complete'))
        # Two more ten-second segments go up while the keyring stays locked.
        wait_until(lambda: len(d.requests('complete')) >= stored + 4, 40, 0.5, 'segments after the lock')
        self.assertTrue(d.keyring_locked(), 'the program unlocked the keyring by itself')
        popover = screen.window('Velmora')
        shown = ' '.join(screen.texts(popover))
        self.assertNotIn(LOST_SIGN_IN, shown)
        self.assertNotIn('Uploads paused', shown)
        self.assertIn('Listening', shown)
        self.picture('keyring-locked-during-call')

        # Quitting during the call still closes it on the server.
        began = time.monotonic()
        self.assertEqual(d.end_app(timeout=20), 0, d.app_stderr()[-2000:])
        self.assertLess(time.monotonic() - began, 10.5)
        routes = [entry['route'] for entry in d.requests()]
        self.assertIn('stop', routes)
        self.assertIn('end', routes)
        self.assertNotIn(LOST_SIGN_IN, d.log())
        self.assertNoSanitizerReport()


class NoKeyring(DesktopTest):
    keyring = 'none'

    def test_without_a_keyring_service_a_sign_in_holds_for_the_run_and_says_so_once(self):
        d = self.desktop
        d.start_app()
        screen = self.screen()
        popover = screen.window('Velmora')
        screen.find('push button', 'Sign in…', popover)
        self.assertFalse([t for t in screen.texts(popover) if 'eychain' in t or 'sign-in could not' in t],
                         screen.texts(popover))

        self.picture('no-keyring-first-start')
        screen.press('push button', 'Sign in…', popover)
        login = screen.window('Sign in to Velmora')
        screen.press('push button', 'Sign in', login)
        page = wait_until(lambda: next((u for u in d.opened() if 'user_code=' in u), None), 20,
                          what='the sign-in page opened')
        code = urllib.parse.parse_qs(urllib.parse.urlparse(page).query)['user_code'][0]
        d.control('auth/approve', {'user_code': code})

        wait_until(lambda: screen.all('push button', 'Account', popover), 20, what='signed in')
        texts = screen.texts(popover)
        notices = [t for t in texts if 'will not be kept' in t]
        self.assertEqual(len(notices), 1, texts)
        self.assertIn('install gnome-keyring or KWallet', notices[0])
        self.assertFalse([t for t in texts if 'eychain' in t or 'could not be opened' in t], texts)
        self.picture('signed-in-without-keyring')
        # The session works: the open calls are listed with it.
        wait_until(lambda: [e for e in d.requests('list') if e.get('has_token')], 20, what='a signed-in list')
        self.assertEqual(d.end_app(), 0)
        self.assertNoSanitizerReport()


if __name__ == '__main__':
    unittest.main()
