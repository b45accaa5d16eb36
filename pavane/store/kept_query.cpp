#include "pavane/store/kept_query.h"

namespace pavane {

bool KeptQuery::Run(const std::function<void()>& eachRow) {
    m_isBroken = true;
    const bool hasRow = m_statement->execute(true);
    for (bool more = hasRow; more; more = m_statement->fetch()) {
        if (eachRow) {
            eachRow();
        }
    }
    m_isBroken = false;
    return hasRow;
}

}  // namespace pavane
