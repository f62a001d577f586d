"""The notification feed in the running program: one banner per new row, poll
after poll, a click that opens the row and marks it read, and a clean exit."""
import datetime
import unittest

from desktop import DesktopTest, wait_until


def now():
    return datetime.datetime.now(datetime.timezone.utc).strftime('%Y-%m-%dT%H:%M:%SZ')


class Feed(DesktopTest):
    def add_row(self, row_id):
        self.desktop.control('notify/rows', {'rows': [{
            'id': row_id, 'title': f'Row {row_id}', 'body': 'news',
            'link': f'/inbox/{row_id}', 'created_at': now()}]})

    def test_rows_one_poll_apart_each_become_a_banner_and_the_program_ends_cleanly(self):
        d = self.desktop
        d.save_session()
        # Not the first run on this machine: the feed has shown something before,
        # written down in the settings file of an earlier version.
        earlier = d.dir / 'config' / 'Velmora' / 'VelmoraTessel.ini'
        earlier.parent.mkdir(parents=True)
        earlier.write_text('[General]\nnotifyShownIDs=earlier\n')
        self.add_row('r1')
        d.start_app()

        # The poll runs at launch and every 30 s after it.
        for count, row_id in ((1, 'r2'), (2, 'r3'), (3, None)):
            wait_until(lambda: len(d.notifications()) == count, 40, 0.5, f'banner {count}')
            if row_id:
                self.add_row(row_id)
        self.assertEqual([n['summary'] for n in d.notifications()], ['Row r1', 'Row r2', 'Row r3'])
        self.assertEqual(sorted(p.name for p in earlier.parent.iterdir()), ['VelmoraTessel.conf'])

        # A click on the second banner opens its row and marks it read.
        second = d.notifications()[1]['id']
        d.notifyd('InvokeAction', second, 'default')
        wait_until(lambda: d.requests('notify_read'), 10, what='the row marked read')
        wait_until(lambda: 'https://acme.velmora.test/inbox/r2' in d.opened(), 10, what='the row opened')
        state = d.control('notify/state')
        self.assertEqual([row['row']['id'] for row in state['rows'] if row['read']], ['r2'])

        self.assertEqual(d.end_app(), 0, d.app_stderr()[-3000:])
        self.assertNoSanitizerReport()
        self.assertNotIn('shared QObject was deleted directly', d.app_stderr())


if __name__ == '__main__':
    unittest.main()
