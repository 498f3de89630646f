#include "private_repository.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace fs = std::filesystem;

static fs::path directory;
[[maybe_unused]] static testing::Environment *const environment =
    testing::AddGlobalTestEnvironment(std::make_unique<PrivateRepository>().release()); // owned by the framework

void PrivateRepository::SetUp()
{
    std::string name = "/dev/shm/lacpd-datastore-test.XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no directory for the repository in /dev/shm");
    directory = name;
    fs::permissions(directory, fs::perms::owner_all | fs::perms::others_exec); // tests become other users
    setenv("SYSREPO_REPOSITORY_PATH", (directory / "repository").c_str(), 1);
    setenv("SYSREPO_SHM_DIR", (directory / "shm").c_str(), 1);
    setenv("SYSREPO_SHM_PREFIX", "test", 1);
    // No plugins: those of the libraries may be in a directory that only the builder can read.
    fs::create_directory(directory / "plugins");
    setenv("SYSREPO_PLUGINS_DIR", (directory / "plugins").c_str(), 1);
    if (geteuid() != 0)
        setenv("SR_ENV_RUN_TESTS", "1", 1); // the files keep the group of whoever runs the tests
    if (system(LACPD_YANG_DIR "/../scripts/datastore.sh") != 0)
        throw std::runtime_error("scripts/datastore.sh has made no repository");
}

void PrivateRepository::TearDown()
{
    std::error_code ignored;
    fs::remove_all(directory, ignored);
}
