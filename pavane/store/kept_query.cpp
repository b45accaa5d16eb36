#include "pavane/store/kept_query.h"

namespace pavane {

bool KeptQuery::Run(const std::function<void()>& eachRow) {
    m_isBroken = true;
    try {
        const bool hasRow = m_statement->execute(true);
        for (bool more = hasRow; more; more = m_statement->fetch()) {
            if (eachRow) {
                eachRow();
            }
        }
        m_isBroken = false;
        return hasRow;
    } catch (...) {
        // One that failed on the way, as for a lock, would make all that this connection reads later old.
        m_statement.reset();
        throw;
    }
}

}  // namespace pavane
