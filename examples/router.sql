-- SPDX-License-Identifier: Apache-2.0
-- Example configuration of a home router: the SoC's packet switch engine
-- (PSE) on top, a five-port switch chip (BCM) below it. PSE port 0 faces
-- the WAN (eth1); PSE port 1 is the trunk to the chip, whose five ports it
-- stands for. Switch rows load before port rows, and lower-level ports
-- before the upper-level ports that map them.
CREATE TABLE IF NOT EXISTS swGlobalCfg (
    id INTEGER PRIMARY KEY,
    switchName TEXT, switchDevice TEXT, vlanEnable INTEGER, qosEnable INTEGER,
    numPorts INTEGER, pauseFrameEnable INTEGER, igmpSnoopingEnable INTEGER,
    mldSnoopingEnable INTEGER, switchLevel INTEGER);

CREATE TABLE IF NOT EXISTS swPortConfig (
    id INTEGER PRIMARY KEY,
    switchName TEXT, portNumber INTEGER, PVID INTEGER, portType INTEGER,
    mirroring INTEGER, trustMode INTEGER, interfaceName TEXT, phyDevice TEXT,
    rateLimit INTEGER, schedMode INTEGER, numQueues INTEGER, queue1Weight INTEGER,
    queue2Weight INTEGER, queue3Weight INTEGER, queue4Weight INTEGER);

CREATE TABLE IF NOT EXISTS vlanEncapIf (
    id INTEGER PRIMARY KEY,
    vlanId INTEGER, interfaceName TEXT, LogicalIfName TEXT, ingressMap TEXT,
    egressMap TEXT, fwdMap TEXT, untagMap TEXT, inSwitchOnly INTEGER);

INSERT INTO swGlobalCfg (switchName, switchDevice, vlanEnable, qosEnable, numPorts,
    pauseFrameEnable, igmpSnoopingEnable, mldSnoopingEnable, switchLevel) VALUES
    ('PSE', '', 1, 1, 7, 1, 0, 0, 2),
    ('BCM', '/dev/bcmsw', 1, 0, 5, 0, 1, 0, 1);

INSERT INTO swPortConfig (switchName, portNumber, PVID, portType, mirroring, trustMode,
    interfaceName, phyDevice, rateLimit, schedMode, numQueues, queue1Weight, queue2Weight,
    queue3Weight, queue4Weight) VALUES
    ('BCM', 0, 1, 0, 0, 0, 'lan1', '', 0, 0, 4, 1, 2, 4, 8),
    ('BCM', 1, 1, 0, 0, 0, 'lan2', '', 0, 0, 4, 1, 2, 4, 8),
    ('BCM', 2, 1, 0, 0, 0, 'lan3', '', 0, 0, 4, 1, 2, 4, 8),
    ('BCM', 3, 1, 0, 0, 0, 'lan4', '', 0, 0, 4, 1, 2, 4, 8),
    ('BCM', 4, 1, 0, 0, 0, 'iptv', '', 0, 0, 4, 1, 2, 4, 8),
    ('PSE', 0, 1, 1, 0, 1, 'eth1', '', 0, 3, 4, 1, 2, 4, 8),
    ('PSE', 1, 1, 0, 0, 2, 'eth0', 'BCM:0,BCM:1,BCM:2,BCM:3,BCM:4', 0, 3, 4, 1, 2, 4, 8);

INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap,
    fwdMap, untagMap, inSwitchOnly) VALUES
    (10, 'eth0', 'br-lan', '', '', '0,1,2,3', '0,1,2,3', 0),
    (20, 'eth0', 'br-iptv', '', '', '4', '4', 0);
