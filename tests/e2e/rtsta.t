The station daemon RTSta: the MAC filter takes device names from it while it answers. Stopped, it takes no call:
each of gwconfd's calls to it gives up after 1000 ms and the stored name is used, and a call that reaches gwconfd
meanwhile is answered afterwards. Resumed, its late answers do no harm.

  $ . $E2E/lib.sh
  $ printf "config macfilter 'main'\n\toption enabled '1'\n\toption curmode 'deny'\nconfig filter 'blacklist'\n\tlist deny '%s'\n" AA:BB:CC:DD:EE:01/tv AA:BB:CC:DD:EE:02/pc > /etc/config/macFilter
  $ up
  $ bus_tool rtsta /tmp/calls AA:BB:CC:DD:EE:01=sta-01 > /tmp/rtsta.out 2>&1 & RTSTA=$!; ubus -t 5 wait_for RTSta
  $ ubus -S call zelmad.macfilter getMacFilter
  {"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE01/sta-01,AABBCCDDEE02/pc"}}
  $ kill -STOP $RTSTA; t0=$(date +%s%N)
  $ (sleep 0.3; ubus call RTIptv getIptvInfo > /dev/null; echo "RTIptv answered with status $?" > /tmp/other) & OTHER=$!
  $ ubus -S call zelmad.macfilter getMacFilter
  {"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE01/tv,AABBCCDDEE02/pc"}}
  $ took $t0 2000 4000
  within 2000-4000 ms
  $ wait $OTHER; cat /tmp/other
  RTIptv answered with status 0
  $ kill -CONT $RTSTA
  $ ubus -S call RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"cam","mac":"AA:BB:CC:DD:EE:03"}}'
  {"result":true}
  $ ubus -S call zelmad.macfilter getMacFilter
  {"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE01/sta-01,AABBCCDDEE02/pc,AABBCCDDEE03/cam"}}
  $ cat /tmp/calls
  getStaDevName AA:BB:CC:DD:EE:01
  getStaDevName AA:BB:CC:DD:EE:02
  getStaDevName AA:BB:CC:DD:EE:01
  getStaDevName AA:BB:CC:DD:EE:02
  setStaDevName AA:BB:CC:DD:EE:03 cam
  getStaDevName AA:BB:CC:DD:EE:01
  getStaDevName AA:BB:CC:DD:EE:02
  getStaDevName AA:BB:CC:DD:EE:03
  $ stop; kill $RTSTA
