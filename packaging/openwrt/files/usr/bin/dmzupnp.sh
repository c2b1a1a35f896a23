#!/bin/sh
# The firewall include gwconfd registers (section 'dmzupnpdomain' of package firewall) when UPnP is switched: the
# package's include, which links the DMZ and UPnP chains (and the WAN port redirect chains) into the firewall.
exec /usr/share/gwconf/firewall.include
