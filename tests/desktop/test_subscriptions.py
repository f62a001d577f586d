"""The subscriptions window with the stand-in sibling tools, as a screen reader
gets it; then again with `meterly` gone, where it must blame `meterly`."""
import subprocess
import unittest

from desktop import BIN, HERE, DesktopTest, wait_until

SCENARIO = HERE.parents[1] / 'tools' / 'faketool' / 'scenarios' / 'desktop.py'


class SubscriptionsWindow(DesktopTest):

    def tools(self, *names):
        """The stand-in tools `names` and the environment that points at them."""
        folder = self.desktop.dir / 'tools'
        scenario = subprocess.run(['/usr/bin/python3', str(SCENARIO), str(folder)], check=True,
                                  capture_output=True, text=True).stdout.strip()
        env = {'VELMORA_FAKETOOL_SCENARIO': scenario, 'VELMORA_FAKETOOL_LOG': str(folder / 'runs.jsonl')}
        for name, variable in (('meterly', 'METERLY_BIN'), ('vantor-accounts', 'VANTOR_ACCOUNTS_BIN')):
            if name in names:
                link = folder / name
                if not link.exists():
                    link.symlink_to(BIN / 'velmora-faketool')
                env[variable] = str(link)
        return env

    def open_window(self, env):
        self.desktop.start_app(env=env)
        screen = self.screen()
        screen.press('push button', 'Subscriptions', screen.window('Velmora'))
        return screen, screen.window('Subscriptions')

    def test_a_screen_reader_reads_the_cards_and_the_missing_tool(self):
        d = self.desktop
        screen, window = self.open_window(self.tools('meterly', 'vantor-accounts'))
        for name in ('work', 'team', 'main', 'credits'):
            screen.find('label', name, window)
        badges = {'Claude', 'Codex', 'Kimi', 'OpenRouter'}
        texts = set(screen.texts(window))
        self.assertLessEqual(badges, texts)
        self.assertFalse({'claude', 'codex', 'kimi', 'openrouter'} & texts, sorted(texts))
        # Whatever can take the focus says what it is.
        unnamed = [f'{node.getRoleName()} in {node.parent.getRoleName()} {node.parent.name!r}'
                   for node in screen.all(within=window)
                   if node.getState().contains(screen.pyatspi.STATE_FOCUSABLE) and not node.name]
        self.assertEqual(unnamed, [], screen.dump(window))
        self.picture('subscriptions-window')
        self.assertEqual(d.end_app(), 0)

        # Without meterly the accounts tool reads; the window names meterly as missing, once.
        # A build that carries no helpers folder, as here, leaves the tools to their packages.
        meterly = 'meterly is not installed — install it to see the usage of your subscriptions.'
        screen, window = self.open_window(self.tools('vantor-accounts'))
        line = wait_until(lambda: [t for t in screen.texts(window) if 'not installed' in t], what='the missing tool')
        self.assertEqual(line, [meterly])
        screen.find('label', 'spare', window)
        self.picture('subscriptions-without-meterly')
        self.assertEqual(d.end_app(), 0)

        # Without either, each says so once; the saved cards stay.
        screen, window = self.open_window(self.tools())
        wait_until(lambda: [t for t in screen.texts(window) if t.startswith('Could not refresh')], what='the failure')
        self.assertEqual([t for t in screen.texts(window) if 'not installed' in t],
                         [meterly, 'vantor-accounts is not installed — install it to see and switch your subscriptions.'])
        screen.find('label', 'spare', window)
        self.assertEqual(d.end_app(), 0)
        self.assertNoSanitizerReport()


if __name__ == '__main__':
    unittest.main()
