// What several hub processes do for each other.

#include <gtest/gtest.h>

#include "tests/support/postgres.h"

namespace {

TEST(HubMembers, ClusterComesBackWithWhatItKept) {
    PostgresCluster& cluster = PostgresCluster::Shared();
    cluster.Database("kept");
    cluster.Run("CREATE TABLE a(b INT); INSERT INTO a VALUES(7)", "kept");
    cluster.Kill();
    EXPECT_THROW(cluster.Run("SELECT b FROM a", "kept"), std::runtime_error);
    cluster.Start();
    EXPECT_EQ(cluster.Run("SELECT b FROM a", "kept"), "7");
    cluster.Stop();
    cluster.Start();
    cluster.Cut("kept");
    EXPECT_EQ(cluster.Run("SELECT b FROM a", "kept"), "7");
}

} // namespace
