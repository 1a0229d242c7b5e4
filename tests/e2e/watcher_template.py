"""dbusmock template: a StatusNotifierWatcher whose methods exist before it answers any call, so a
program already waiting for a tray host registers its item the moment the watcher comes up."""
import dbus

BUS_NAME = 'org.kde.StatusNotifierWatcher'
MAIN_OBJ = '/StatusNotifierWatcher'
MAIN_IFACE = 'org.kde.StatusNotifierWatcher'
SYSTEM_BUS = False


def load(mock, parameters):
    """parameters: {'host': False} for a watcher that no tray host has registered with yet."""
    mock.AddMethods(MAIN_IFACE, [
        ('RegisterStatusNotifierItem', 's', '', ''),
        ('RegisterStatusNotifierHost', 's', '', ''),
    ])
    mock.AddProperties(MAIN_IFACE, {
        'IsStatusNotifierHostRegistered': dbus.Boolean(parameters.get('host', True)),
        'ProtocolVersion': dbus.Int32(0),
        'RegisteredStatusNotifierItems': dbus.Array([], signature='s'),
    })
