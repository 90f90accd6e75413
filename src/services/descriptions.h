// The interface descriptions of the D-Bus objects: the very texts of the files in dbus/, which are installed, too.
#pragma once

extern const char KDynDnsDescription[];
extern const char KVoltaroDescription[];
extern const char KOrvoServicesInfoDescription[];
