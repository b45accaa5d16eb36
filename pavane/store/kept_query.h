#pragma once

#include <functional>
#include <optional>

#include <soci/soci.h>

namespace pavane {

// A statement that a connection prepares once and runs many times: preparing takes several times as long as
// finding a row by its key. A derived type holds the variables of its values and columns and prepares the
// text with them; Database::Kept gives the connection's one of that type.
//   struct NameOf : KeptQuery {
//       explicit NameOf(soci::session& session) {
//           Prepare((session.prepare << "select name from camera where id = :id", soci::into(name),
//                    soci::use(id)));
//       }
//       int id = 0;
//       std::string name;
//   };
class KeptQuery {
public:
    KeptQuery() = default;
    virtual ~KeptQuery() = default;
    KeptQuery(const KeptQuery&) = delete;
    KeptQuery& operator=(const KeptQuery&) = delete;

    // Runs it with the values in its variables. True when there was a row; the columns of the last one are in
    // the variables then, and of each one while `eachRow` is called, which must not run it again. It is
    // always run to its end: one that stopped at a row would hold on to what the database looked like. Throws
    // soci::soci_error, and what `eachRow` throws.
    bool Run(const std::function<void()>& eachRow = nullptr);

    long long AffectedRows() { return m_statement->get_affected_rows(); }

    // A statement that failed or stopped on the way can't be run again.
    bool IsBroken() const { return m_isBroken; }

protected:
    void Prepare(const soci::details::prepare_temp_type& text) { m_statement.emplace(text); }

private:
    std::optional<soci::statement> m_statement;
    bool m_isBroken = false;
};

}  // namespace pavane
