# What zniscsi answered on a machine, for the playbooks. No filter raises an exception: a wrong answer of one machine
# does not stop the others.
import json

HEADINGS = ['MACHINE', 'STATE', 'PORTAL', 'IFACE', 'LUN', 'DEVICE', 'SIZE', 'USED BY', 'IQN']


# The JSON object that "zniscsi ... --json" printed, and "changed". `result` is what Ansible registered for its run. If
# that is no answer, "ok" is false, and "reasons" repeats nothing of the output: it may hold the secret.
def answer(result):
    status = result.get('rc')
    try:
        found = json.loads(result['stdout'])
        if found['ok'] is (status == 0) and (found['ok'] or isinstance(found['reasons'], list)):
            each = found.get('portals', [found])
            return {**found, 'changed': any(one['ok'] and one.get('already') is False for one in each)}
    except (AttributeError, LookupError, RecursionError, TypeError, ValueError):
        pass
    return {'ok': False, 'changed': False, 'reasons': ['zniscsi printed no JSON, exit status %s' % status]}


# One line: the text of one machine must not look like the row of another.
def printable(text):
    return ''.join(c if c.isprintable() else c.encode('unicode_escape').decode() for c in str(text)[:300])


# 100M, 1.5T
def size(count):
    unit = 0
    while count >= 1023.95 and unit < 6:
        count, unit = count / 1024, unit + 1
    return ('%.1f' % count).removesuffix('.0') + 'BKMGTPE'[unit]


def row(session):
    disk_state, count, users = session['disk_state'], session['bytes'], session['used_by']
    cells = [session['state'] if disk_state in (None, 'running') else '%s/%s' % (session['state'], disk_state),
             session['portal'], session.get('iface'), session['lun'], session['device'],
             None if count is None else size(count),
             ','.join(users if session['map'] is None else [session['map']] + users), session['iqn']]
    return ['-' if cell in (None, '') else printable(cell) for cell in cells]


# The rows of a machine, and why there are none.
def read(result):
    found = answer(result)
    if found['ok']:
        try:
            return [row(session) for session in found['sessions']], 'no session'
        except (ArithmeticError, AttributeError, LookupError, TypeError):
            return [], 'no answer: not a list of sessions'
    if 'cause' in found:
        return [], 'failed: ' + printable('; '.join(map(str, found['reasons'])))
    if result.get('unreachable'):
        return [], 'unreachable: ' + printable(result.get('msg'))
    # Ansible's own words say why there is no exit status of zniscsi.
    said = result.get('stderr') or (found['reasons'][0] if result.get('start') else result.get('msg'))
    return [], 'no answer: ' + printable(str(said).strip().partition('\n')[0])


# Why a machine has no list of sessions; empty if it has one.
def sessions_fault(result):
    rows, why = read(result)
    return '' if rows or why == 'no session' else why


# The sessions of all machines as "zniscsi sessions" shows them, a disk a line. `results`: the machines' names and
# what was registered for each.
def sessions_table(results):
    lines = [HEADINGS]
    for machine, result in results:
        rows, why = read(result)
        lines += [[machine] + cells for cells in rows] or [[machine, why]]
    widths = [max(len(line[column]) for line in lines if len(line) > 2) for column in range(len(HEADINGS))]
    widths[0] = max(len(line[0]) for line in lines)
    return '\n'.join('  '.join(cell.ljust(widths[column]) for column, cell in enumerate(line)).rstrip()
                     for line in lines) + '\n'


class FilterModule:
    def filters(self):
        return {'zniscsi_answer': answer, 'zniscsi_sessions_fault': sessions_fault,
                'zniscsi_sessions_table': sessions_table}
