#pragma once

#include "veltancmat/platform/Export.h"

#include <functional>
#include <memory>
#include <string>

// The few moments when a computation needs the user: an information message
// and a yes/no question. The host installs its own implementation (dialogs);
// the library calls whichever is installed through GetUserComm().
//
// The base class itself is what runs when nobody installed anything. A
// library must never wait on a terminal, so it does not ask: Info writes
// "caption: text" to std::clog, AskYesNo writes the question there too and
// answers with the default the caller chose as the safe one.
class VELTANCMAT_API UserComm {
public:
    using InfoFunction = std::function<void(const std::string& caption, const std::string& text)>;
    using AskFunction =
        std::function<bool(const std::string& caption, const std::string& question, bool defaultAnswer)>;

    UserComm() = default;
    virtual ~UserComm();
    UserComm(const UserComm&) = delete;
    UserComm& operator=(const UserComm&) = delete;

    virtual void Info(const std::string& caption, const std::string& text);
    virtual bool AskYesNo(const std::string& caption, const std::string& question, bool defaultAnswer);

    // The installed implementation, never null. The caller holds a share of
    // it, so a concurrent SetUserComm cannot destroy it during the call.
    static std::shared_ptr<UserComm> GetUserComm();
    // Installs `comm` (null: the default again) and returns the previous one,
    // so a caller can restore it. Safe to call from any thread.
    static std::shared_ptr<UserComm> SetUserComm(std::shared_ptr<UserComm> comm);
    // An implementation built from two functions; an empty function keeps
    // the default behaviour for that operation.
    static std::shared_ptr<UserComm> FromFunctions(InfoFunction info, AskFunction ask);
};
