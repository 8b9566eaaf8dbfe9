#include "hub/store_admission.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "hub/store_services.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kPendingSeconds = 24 * 60 * 60; ///< after it asked last
constexpr int kNoteSeconds = 30;              ///< between two notes that a device asked again
constexpr int kActiveSeconds = 2 * 60;        ///< who asked within that time will ask again

/// So that a device is told for a while that its code has expired, not that it is unknown.
constexpr std::int64_t kExpiredSeconds = 30 * 24 * 60 * 60;

constexpr int kSoonest = 5;
constexpr int kLatest = 60;
constexpr int kAsksPerSecond = 20;
constexpr auto kCounting = std::chrono::seconds(5);

std::int64_t KeyOf(Database& database, const std::string& serial) {
    Query known(database,
                database.Sql("SELECT key FROM device WHERE serial = $1",
                             "SELECT key FROM device WHERE serial = $1 FOR UPDATE"),
                serial);
    return known.Next() ? known.Integer(0) : 0;
}

bool DropPending(Database& database, const std::string& serial) {
    Query drop(database, "DELETE FROM pending WHERE serial = $1 RETURNING serial", serial);
    const bool had = drop.Next();
    drop.Run();
    return had;
}

bool LiftBan(Database& database, const std::string& serial) {
    Query lift(database, "DELETE FROM ban WHERE serial = $1 RETURNING serial", serial);
    return lift.Next();
}

/// A device that waits, and the hash of its token.
struct Candidate {
    Identity identity;
    std::string token;
};

std::vector<Candidate> CandidatesFor(Database& database, const std::string& serial,
                                     const std::string& from) {
    std::vector<Candidate> candidates;
    Query rows(database,
               "SELECT server_id, mac, token FROM pending WHERE serial = $1"
               " AND ($2 = '' OR address = $2) AND last_asked + $3 > unixepoch()",
               serial, from, kPendingSeconds);
    while (rows.Next()) {
        candidates.push_back({{serial, "", rows.Text(1), "", rows.Text(0)}, rows.Text(2)});
    }
    return candidates;
}

/// Whether the device waits already. Notes that it has asked again.
bool NoteAgain(Database& database, const Applicant& applicant, const std::string& token) {
    {
        Query fresh(database,
                    "SELECT 1 FROM pending WHERE serial = $1 AND token = $2"
                    " AND last_asked + $3 > unixepoch() AND address = $4",
                    applicant.identity.serial, token, kNoteSeconds, applicant.address);
        if (fresh.Next()) {
            return true;
        }
    }
    Query note(database,
               "UPDATE pending SET server_id = $3, mac = $4, address = $5, network = $6,"
               " last_asked = unixepoch() WHERE serial = $1 AND token = $2 RETURNING serial",
               applicant.identity.serial, token, applicant.identity.serverId,
               applicant.identity.mac, applicant.address, applicant.network);
    return note.Next();
}

bool HasRoomToWait(Database& database, std::int64_t network) {
    Query(database, "DELETE FROM pending WHERE last_asked + $1 <= unixepoch()", kPendingSeconds)
        .Run();
    Query all(database, "SELECT count(*) FROM pending");
    Query near(database, "SELECT count(*) FROM pending WHERE network = $1", network);
    return all.Next() && all.Int(0) < kMaxPending && near.Next() &&
           near.Int(0) < kMaxPendingOfNetwork;
}

} // namespace

StoreResult AdmissionStore::Look(const Identity& identity, Standing& standing) {
    return access_.Read("look-up of a device", [&](Database& database) {
        std::int64_t key = 0;
        standing = DeviceStore::Judge(database, identity, key);
        return StoreResult::Done;
    });
}

StoreResult AdmissionStore::Join(const Applicant& applicant, const std::string& codeHash,
                                 Standing& standing) {
    return access_.Write("joining of a device", [&](Database& database) {
        std::int64_t key = 0;
        standing = DeviceStore::Judge(database, applicant.identity, key);
        if (standing != Standing::Unknown) {
            return StoreResult::Done;
        }
        if (!devices_.AdmitsAll()) {
            standing = codeHash.empty() ? Wait(database, applicant) : UseCode(database, codeHash);
            if (standing != Standing::Admitted) {
                return StoreResult::Done;
            }
        }
        standing = Standing::Admitted;
        (void)DropPending(database, applicant.identity.serial);
        return devices_.Add(database, applicant.identity, HashToken(applicant.identity), key);
    });
}

Standing AdmissionStore::UseCode(Database& database, const std::string& codeHash) {
    {
        Query use(database,
                  "UPDATE invitation SET uses = uses - 1 WHERE hash = $1 AND uses > 0"
                  " AND expires > unixepoch() RETURNING uses",
                  codeHash);
        if (use.Next()) {
            return Standing::Admitted;
        }
    }
    Query why(database, "SELECT uses FROM invitation WHERE hash = $1", codeHash);
    return !why.Next()       ? Standing::CodeUnknown
           : why.Int(0) == 0 ? Standing::CodeUsed
                             : Standing::CodeExpired;
}

Standing AdmissionStore::Wait(Database& database, const Applicant& applicant) {
    const std::string token = HashToken(applicant.identity);
    if (NoteAgain(database, applicant, token)) {
        return Standing::Pending;
    }
    if (!HasRoomToWait(database, applicant.network)) {
        return Standing::Crowded;
    }
    Query(database,
          "INSERT INTO pending(serial, token, server_id, mac, address, network, first_asked,"
          " last_asked) VALUES($1, $2, $3, $4, $5, $6, unixepoch(), unixepoch())",
          applicant.identity.serial, token, applicant.identity.serverId, applicant.identity.mac,
          applicant.address, applicant.network)
        .Run();
    newcomers_.Log("store", "device %s from %s waits to be admitted",
                   applicant.identity.serial.c_str(), applicant.address.c_str());
    return Standing::Pending;
}

int AdmissionStore::RetryAfter() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto now = std::chrono::steady_clock::now();
        if (now < counted_ + kCounting) {
            return retryAfter_;
        }
        counted_ = now; // whoever asks meanwhile gets the last number
    }
    int asking = 0;
    (void)access_.Read("counting of pending devices", [&asking](Database& database) {
        Query count(database, "SELECT count(*) FROM pending WHERE last_asked + $1 > unixepoch()",
                    kActiveSeconds);
        asking = count.Next() ? count.Int(0) : 0;
        return StoreResult::Done;
    });
    const std::lock_guard<std::mutex> lock(mutex_);
    retryAfter_ = std::clamp((asking + kAsksPerSecond - 1) / kAsksPerSecond, kSoonest, kLatest);
    return retryAfter_;
}

StoreResult AdmissionStore::Invite(const NewInvitation& invitation) {
    return access_.Write("invitation", [&](Database& database) {
        Query(database, "DELETE FROM invitation WHERE expires + $1 <= unixepoch()", kExpiredSeconds)
            .Run();
        Query(database,
              "INSERT INTO invitation(hash, uses, expires) VALUES($1, $2, unixepoch() + $3)",
              invitation.hash, invitation.uses, invitation.seconds)
            .Run();
        return StoreResult::Done;
    });
}

StoreResult AdmissionStore::Pending(std::vector<PendingDevice>& devices) {
    return access_.Read("list of pending devices", [&](Database& database) {
        devices.clear();
        Query rows(database,
                   "SELECT serial, server_id, mac, address, first_asked, last_asked FROM pending"
                   " WHERE last_asked + $1 > unixepoch() ORDER BY first_asked, serial, token",
                   kPendingSeconds);
        while (rows.Next()) {
            devices.push_back({rows.Text(0), rows.Text(1), rows.Text(2), rows.Text(3),
                               rows.Integer(4), rows.Integer(5)});
        }
        return StoreResult::Done;
    });
}

StoreResult AdmissionStore::Admit(const std::string& serial, const std::string& from,
                                  AdmitResult& result) {
    return access_.Write("admission", [&](Database& database) {
        const bool wasBanned = LiftBan(database, serial);
        if (KeyOf(database, serial) != 0) {
            result = wasBanned ? AdmitResult::Admitted : AdmitResult::Known;
            return StoreResult::Done;
        }
        const std::vector<Candidate> candidates = CandidatesFor(database, serial, from);
        if (candidates.empty()) {
            result = AdmitResult::Unbanned;
            return wasBanned ? StoreResult::Done : StoreResult::NotFound;
        }
        if (candidates.size() > 1) {
            result = AdmitResult::Ambiguous;
            return StoreResult::Done;
        }
        const Candidate& chosen = candidates.front();
        std::int64_t key = 0;
        if (DeviceStore::HasAnother(database, chosen.identity.serverId, key)) {
            return StoreResult::Taken;
        }
        result = AdmitResult::Admitted;
        (void)DropPending(database, serial);
        return devices_.Add(database, chosen.identity, chosen.token, key);
    });
}

void AdmissionStore::Disconnect(Database& database, std::int64_t device, Changes& touched) {
    touched.devices.push_back(device);
    Query(database, "DELETE FROM session WHERE device = $1", device).Run();
    ServiceStore::RemoveAll(database, device, touched.tunnels);
}

StoreResult AdmissionStore::Ban(const std::string& serial, Changes& touched) {
    Changes changes;
    const StoreResult result = access_.Write("ban", [&](Database& database) {
        changes = {};
        const std::int64_t device = KeyOf(database, serial);
        Query(database,
              "INSERT INTO ban(serial, since) VALUES($1, unixepoch()) ON CONFLICT DO NOTHING",
              serial)
            .Run();
        (void)DropPending(database, serial);
        if (device != 0) {
            Disconnect(database, device, changes);
        }
        return StoreResult::Done;
    });
    if (result == StoreResult::Done) {
        touched = std::move(changes);
    }
    return result;
}

StoreResult AdmissionStore::Forget(const std::string& serial, Changes& touched) {
    Changes changes;
    const StoreResult result = access_.Write("removal of a device", [&](Database& database) {
        changes = {};
        const std::int64_t device = KeyOf(database, serial);
        const bool wasPending = DropPending(database, serial);
        const bool wasBanned = LiftBan(database, serial);
        if (device != 0) {
            Disconnect(database, device, changes);
            Query(database, "DELETE FROM device WHERE key = $1", device).Run();
        }
        return device != 0 || wasPending || wasBanned ? StoreResult::Done : StoreResult::NotFound;
    });
    if (result == StoreResult::Done) {
        touched = std::move(changes);
    }
    return result;
}

} // namespace ZARO::RelayHub
