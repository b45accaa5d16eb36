#pragma once

#include <string>

#include "korv/system/cipher_folder.h"
#include "korv/system/share_move.h"

// The two folders of a share that becomes encrypted, and of one that becomes plain again. All but the share's
// own folder is in the volume's hidden folder, by the share's token:
//
//     .korv/cipher/TOKEN  the encrypted files
//     .korv/move/TOKEN    what takes the share's place, and after the switch what was there before
//     .korv/view/TOKEN    where the encrypted files are mounted while a move needs them out of sight
//
// Which side of the switch a move is on stands in the folder .korv/move/TOKEN itself: it bears a mark until
// the rename that exchanges it with the share's.
namespace korv {

class EncryptionPlaces : public MovePlaces {
public:
    // `volume` is a volume's path, `name` the share's folder there.
    EncryptionPlaces(std::string volume, std::string name, const std::string& token);

    std::uint64_t FreeBytes() override;
    bool HasSwitched() override;
    void Flush() override;
    // True when the plain files are mounted at the hidden place.
    bool IsAtView() const { return m_atView.State() == CipherState::kUnlocked; }

protected:
    // Makes the folder that will take the share's place, marked, if it isn't there.
    //   isForFiles  a subvolume where the volume has such
    void PrepareAside(bool isForFiles);
    // Exchanges the share's folder and the one aside, if that was not done yet.
    //   isGuarded  from then on nobody can make anything in the folder at the share's place, where the file
    //              system has a way for that
    void Exchange(bool isGuarded);
    // Takes guard and mark away from the folder at the share's place, also when something is mounted there.
    void Unguard() const;
    void ShowView(const std::string& from, const std::string& at);
    void HideView();
    bool RemoveHidden(const std::string& path);
    FileDescriptor OpenHidden(const std::string& path);
    FileDescriptor OpenMounted(const CipherFolder& folder);

    std::string SharePath() const { return m_volume + "/" + m_name; }

    std::string m_volume;
    std::string m_name;
    std::string m_cipher;  // from the volume on, as the next two
    std::string m_aside;
    std::string m_view;
    CipherFolder m_atShare;  // the encrypted files where people see them
    CipherFolder m_atView;
};

// Plain to encrypted. The share is out of reach for the short time of settling; files that are open at the
// switch are carried over when they are closed. The empty folder at the share's place is guarded until the
// encrypted files are mounted there: what root wrote into it would be hidden then, and in the way later.
class EncryptPlaces : public EncryptionPlaces {
public:
    // `password` may be empty for a move that goes on: it ends with kLocked if it turns out to be needed.
    EncryptPlaces(std::string volume, std::string name, const std::string& token, std::string password);

    FileDescriptor OpenSource() override;
    FileDescriptor OpenTarget() override;
    void PrepareTarget() override;
    void Detach() override {}
    bool IsUsedLocally() override { return false; }
    void Switch() override;
    bool HasToSettle() override;
    bool Show() override;
    bool IsSourceHeld() override;
    bool RemoveSource() override;
    bool RemoveTarget() override;

private:
    void MountView();

    std::string m_password;
};

// Encrypted to plain. The share must be unlocked; it is out of sight for the short time of the last pass and
// the switch, and nobody may have files of it open then (kSourceBusy).
class DecryptPlaces : public EncryptionPlaces {
public:
    using EncryptionPlaces::EncryptionPlaces;

    FileDescriptor OpenSource() override;
    FileDescriptor OpenTarget() override;
    void PrepareTarget() override;
    void Detach() override;
    bool IsUsedLocally() override;
    void Switch() override;
    bool HasToSettle() override { return false; }
    bool Show() override { return false; }
    bool IsSourceHeld() override;
    bool RemoveSource() override;
    bool RemoveTarget() override;
};

}  // namespace korv
