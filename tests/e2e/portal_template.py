"""dbusmock template: the desktop portal's GlobalShortcuts interface. Every request is answered at
once with a Response on the request path the caller could predict; BindShortcuts binds whatever
it is given to Ctrl+Alt+P. The test reads the session and the bound ids from the LxTest
interface, then emits Activated itself."""
import dbus
from dbusmock import mockobject

BUS_NAME = 'org.freedesktop.portal.Desktop'
MAIN_OBJ = '/org/freedesktop/portal/desktop'
MAIN_IFACE = 'org.freedesktop.portal.GlobalShortcuts'
REQUEST_IFACE = 'org.freedesktop.portal.Request'
TEST_IFACE = 'com.zemko.LxTest'
SYSTEM_BUS = False


def load(mock, parameters):
    mock.session = ''
    mock.bound = []
    mock.AddProperties(MAIN_IFACE, {'version': dbus.UInt32(1)})
    mock.AddMethods(TEST_IFACE, [
        ('Session', '', 's', 'ret = self.session'),
        ('Bound', '', 'as', 'ret = self.bound'),
    ])


def _caller(sender):
    return sender[1:].replace('.', '_')


def _respond(self, sender, token, results):
    path = f'{MAIN_OBJ}/request/{_caller(sender)}/{token}'
    if path not in mockobject.objects:
        self.AddObject(path, REQUEST_IFACE, {}, [('Close', '', '', '')])
    mockobject.objects[path].EmitSignal(REQUEST_IFACE, 'Response', 'ua{sv}', [dbus.UInt32(0), results])
    return dbus.ObjectPath(path)


@dbus.service.method(MAIN_IFACE, in_signature='a{sv}', out_signature='o', sender_keyword='sender')
def CreateSession(self, options, sender):
    self.session = f'{MAIN_OBJ}/session/{_caller(sender)}/{options["session_handle_token"]}'
    return _respond(self, sender, options['handle_token'], {'session_handle': dbus.String(self.session)})


@dbus.service.method(MAIN_IFACE, in_signature='oa(sa{sv})sa{sv}', out_signature='o', sender_keyword='sender')
def BindShortcuts(self, session, shortcuts, parent_window, options, sender):
    if str(session) != self.session:
        raise dbus.exceptions.DBusException('unknown session', name='org.freedesktop.portal.Error.NotFound')
    self.bound = [str(shortcut_id) for shortcut_id, _ in shortcuts]
    bound = dbus.Array([dbus.Struct((shortcut_id, {'description': props['description'],
                                                   'trigger_description': dbus.String('Ctrl+Alt+P')}))
                        for shortcut_id, props in shortcuts], signature='(sa{sv})')
    return _respond(self, sender, options['handle_token'], {'shortcuts': bound})
