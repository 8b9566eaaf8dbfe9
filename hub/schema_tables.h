/// What makes the tables. "{key}" is the type of a key that counts up, "{clustered}" stands after
/// a table that is sorted by its key.
#pragma once

namespace ZARO::RelayHub {

constexpr int kVersion = 3; // of the tables

/// What version 1 had already.
constexpr char kDeviceTables[] = R"(
CREATE TABLE device(
    key {key},
    serial TEXT NOT NULL UNIQUE,
    token TEXT NOT NULL,
    server_id TEXT NOT NULL UNIQUE,
    mac TEXT NOT NULL,
    timezone TEXT NOT NULL,
    network TEXT NOT NULL DEFAULT '',
    revision BIGINT NOT NULL DEFAULT 1);
CREATE TABLE session(
    key {key},
    hash TEXT NOT NULL UNIQUE,
    device BIGINT NOT NULL REFERENCES device ON DELETE CASCADE);
CREATE INDEX session_device ON session(device, key);
CREATE TABLE alias(
    name TEXT PRIMARY KEY,
    device BIGINT NOT NULL UNIQUE REFERENCES device ON DELETE CASCADE,
    expires BIGINT NOT NULL){clustered};
CREATE INDEX alias_expires ON alias(expires);
)";

/// Times are the database's own, in seconds, so that the hosts' clocks may differ.
constexpr char kRelayTables[] = R"(
CREATE TABLE relay(
    key {key},
    name TEXT NOT NULL UNIQUE,
    host TEXT NOT NULL DEFAULT '',
    owner TEXT NOT NULL DEFAULT '',
    key_text TEXT NOT NULL DEFAULT '',
    first_port BIGINT NOT NULL DEFAULT 0,
    last_port BIGINT NOT NULL DEFAULT 0,
    load BIGINT NOT NULL DEFAULT 0,
    state TEXT NOT NULL DEFAULT 'up',
    seen BIGINT NOT NULL DEFAULT 0,
    epoch BIGINT NOT NULL DEFAULT 0);
CREATE TABLE port(
    relay BIGINT NOT NULL,
    port BIGINT NOT NULL,
    device BIGINT,
    freed BIGINT NOT NULL DEFAULT 0,
    PRIMARY KEY(relay, port)){clustered};
CREATE INDEX port_free ON port(relay, freed, port) WHERE device IS NULL;
CREATE TABLE service(
    device BIGINT NOT NULL REFERENCES device ON DELETE CASCADE,
    id TEXT NOT NULL,
    name TEXT NOT NULL,
    port BIGINT NOT NULL,
    external_port BIGINT NOT NULL,
    relay BIGINT NOT NULL REFERENCES relay,
    relay_port BIGINT NOT NULL,
    relay_user TEXT NOT NULL UNIQUE,
    relay_password TEXT NOT NULL,
    stale BIGINT NOT NULL DEFAULT 0,
    up BIGINT NOT NULL DEFAULT 0,
    PRIMARY KEY(device, id),
    UNIQUE(relay, relay_port)){clustered};
CREATE VIEW tunnel AS
    SELECT device, id, service.name AS name, port, service.relay AS relay, host, relay_port,
           relay_user, relay_password, up
    FROM service JOIN relay ON relay.key = service.relay;
)";

/// What version 3 adds. Devices that were known before are admitted, nobody knows since when.
constexpr char kAdmissionTables[] = R"(
ALTER TABLE device ADD COLUMN registered BIGINT NOT NULL DEFAULT 0;
ALTER TABLE device ADD COLUMN admitted_at BIGINT NOT NULL DEFAULT 0;
ALTER TABLE relay ADD COLUMN ssh_port BIGINT NOT NULL DEFAULT 0;
CREATE TABLE pending(
    serial TEXT NOT NULL,
    token TEXT NOT NULL,
    server_id TEXT NOT NULL,
    mac TEXT NOT NULL,
    address TEXT NOT NULL,
    network BIGINT NOT NULL,
    first_asked BIGINT NOT NULL,
    last_asked BIGINT NOT NULL,
    PRIMARY KEY(serial, token)){clustered};
CREATE INDEX pending_network ON pending(network);
CREATE INDEX pending_asked ON pending(last_asked);
CREATE TABLE invitation(
    hash TEXT PRIMARY KEY,
    uses BIGINT NOT NULL,
    expires BIGINT NOT NULL){clustered};
CREATE TABLE ban(
    serial TEXT PRIMARY KEY,
    since BIGINT NOT NULL){clustered};
)";

/// For the processes of one host, which have no other way to tell each other of changes.
constexpr char kSqliteExtras[] = R"(
CREATE TABLE event(
    seq INTEGER PRIMARY KEY AUTOINCREMENT,
    made BIGINT NOT NULL DEFAULT (unixepoch()),
    text TEXT NOT NULL);
)";

/// The clock has the name that it has in SQLite.
constexpr char kPostgresExtras[] = R"(
CREATE FUNCTION unixepoch() RETURNS BIGINT LANGUAGE sql STABLE
    AS 'SELECT CAST(floor(extract(epoch FROM statement_timestamp())) AS BIGINT)';
CREATE TABLE hub_schema(version BIGINT NOT NULL);
)";

/// Tunnels keep their ports, users and passwords. The ports that were handed out last come last
/// among the free ones, as ever. Devices may have seen their tunnels up.
constexpr char kFromVersion1[] = R"(
INSERT INTO relay(key, name) VALUES(1, 'relay');
INSERT INTO service(device, id, name, port, external_port, relay, relay_port, relay_user,
                    relay_password, stale)
    SELECT device, id, name, port, external_port, 1, relay_port, relay_user, relay_password, stale
    FROM service_1;
INSERT INTO port(relay, port, device) SELECT 1, relay_port, device FROM service;
WITH RECURSIVE used(port) AS (
    SELECT 1 UNION ALL SELECT port + 1 FROM used WHERE port < (SELECT port FROM port_cursor))
INSERT INTO port(relay, port, freed) SELECT 1, port, 1 FROM used WHERE true
    ON CONFLICT DO NOTHING;
DROP TABLE service_1;
DROP TABLE port_cursor;
UPDATE device SET revision = revision % 2147483647 + 1;
)";

} // namespace ZARO::RelayHub
