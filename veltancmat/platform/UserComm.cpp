#include "veltancmat/platform/UserComm.h"

#include "veltancmat/platform/ExceptionMessage.h"

#include <iostream>
#include <mutex>
#include <utility>

namespace {

// Forwards to two functions, falling back to the default for an empty one.
class FunctionUserComm : public UserComm {
public:
    FunctionUserComm(InfoFunction info, AskFunction ask) : m_info(std::move(info)), m_ask(std::move(ask)) {}

    void Info(const std::string& caption, const std::string& text) override
    {
        if (m_info)
            m_info(caption, text);
        else
            UserComm::Info(caption, text);
    }
    bool AskYesNo(const std::string& caption, const std::string& question, bool defaultAnswer) override
    {
        return m_ask ? m_ask(caption, question, defaultAnswer) : UserComm::AskYesNo(caption, question, defaultAnswer);
    }

private:
    InfoFunction m_info;
    AskFunction m_ask;
};

struct Installed {
    std::mutex mutex;
    std::shared_ptr<UserComm> fallback = std::make_shared<UserComm>();
    std::shared_ptr<UserComm> current = fallback;
};

Installed& State()
{
    static Installed state;
    return state;
}

// One write per message, so messages from different threads do not mix.
void Log(const std::string& caption, const std::string& text)
{
    std::string line = caption.empty() ? text : caption + ": " + text;
    line += '\n';
    std::clog << line << std::flush;
}

} // namespace

UserComm::~UserComm() = default;

void UserComm::Info(const std::string& caption, const std::string& text)
{
    Log(caption, text);
}

bool UserComm::AskYesNo(const std::string& caption, const std::string& question, bool defaultAnswer)
{
    const ExceptionMessage answer = defaultAnswer ? ExceptionMessage::translate("Dialog answer", "Yes")
                                                  : ExceptionMessage::translate("Dialog answer", "No");
    Log(caption, question + " [" + answer.str() + "]");
    return defaultAnswer;
}

std::shared_ptr<UserComm> UserComm::GetUserComm()
{
    Installed& state = State();
    std::lock_guard lock(state.mutex);
    return state.current;
}

std::shared_ptr<UserComm> UserComm::SetUserComm(std::shared_ptr<UserComm> comm)
{
    Installed& state = State();
    std::shared_ptr<UserComm> previous;
    {
        std::lock_guard lock(state.mutex);
        previous = std::exchange(state.current, comm ? std::move(comm) : state.fallback);
    }
    return previous;
}

std::shared_ptr<UserComm> UserComm::FromFunctions(InfoFunction info, AskFunction ask)
{
    return std::make_shared<FunctionUserComm>(std::move(info), std::move(ask));
}
