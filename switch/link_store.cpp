#include "link_store.h"

#include <stdexcept>

namespace olt
{

namespace
{

constexpr int SLOT = 0;

} // namespace

DatastoreLinks::DatastoreLinks()
{
    if (database_init(&db_) != 0)
        throw std::runtime_error("the datastore cannot be used; install its modules first, or give --no-datastore");
}

DatastoreLinks::~DatastoreLinks()
{
    database_close(&db_);
}

bool DatastoreLinks::create(std::uint32_t port, bool up)
{
    return db_olt_ifm_add_interface(SLOT, port, &db_, up) == 0;
}

bool DatastoreLinks::set(std::uint32_t port, bool up)
{
    return db_olt_ifm_set_interface_basic_link_status(SLOT, port, &db_, up) == 0;
}

} // namespace olt
