#pragma once

#include <functional>
#include <string>

#include "korv/system/share_store.h"
#include "tests/unit/korv/private_machine.h"

// Tests that take shares through their lives; what they mount is unmounted when they end.
class ShareLifeTest : public MachineTest {
protected:
    static constexpr const char* kPassword = "open sesame";

    void TearDown() override;

    // Creates a share and puts the file "cam1/a.mp4" into it. Gives its row.
    static korv::ShareRow Make(const std::string& name, bool isEncrypted = false,
                               const std::string& volume = machine::Volume());
    // True when that file is readable and as it was.
    static bool HasFile(const std::string& folder);
    // Runs `work` in a child, which must die by SIGKILL.
    static void ExpectKilled(const std::function<void()>& work);
    // Makes every statement that does `what` ("delete on share_removal", for one) fail until it is allowed
    // again or the test ends, as on a database that can't be written.
    static void Refuse(const std::string& what);
    static void Allow();
    // Whether others could write into korv.db while `work` went on, none waiting for two seconds.
    static bool CanOthersWriteDuring(const std::function<void()>& work);
    // Unmounts everything at or beneath `folder`.
    static void UnmountAll(const std::string& folder);
};
