#pragma once

#include <QString>

namespace tk {

class ServiceApi;

// Hands capture folders to the service; folders it did not take (anything but
// HTTP 200) wait in tk.pendingIngest and go again on the next drain.
class Ingest {
public:
    explicit Ingest(ServiceApi& api) : m_api(api) {}

    void ingest(const QString& dir); // any thread
    void drainPending();
    static void queuePending(const QString& dir);

private:
    ServiceApi& m_api;
};

} // namespace tk
