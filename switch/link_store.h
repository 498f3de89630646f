// Where the link status of the ports is kept for the daemon.
#pragma once

#include "keldatabase/keldatabase.h"

namespace olt
{

// Each call is one transaction. False when it was refused or could not be made.
class LinkStore
{
  public:
    virtual ~LinkStore() = default;
    // Makes the port's interface entry with its status, or corrects the one that is there.
    virtual bool create(std::uint32_t port, bool up) = 0;
    virtual bool set(std::uint32_t port, bool up) = 0;
};

class DatastoreLinks : public LinkStore
{
  public:
    // Throws when the datastore cannot be used.
    DatastoreLinks();
    ~DatastoreLinks() override;
    DatastoreLinks(const DatastoreLinks &) = delete;
    DatastoreLinks &operator=(const DatastoreLinks &) = delete;

    bool create(std::uint32_t port, bool up) override;
    bool set(std::uint32_t port, bool up) override;

  private:
    KelDb db_{};
};

} // namespace olt
