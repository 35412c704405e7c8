#pragma once

#include <cstddef>
#include <ostream>
#include <type_traits>

// Every message the watchdog writes to its log, defined once: the watchdog writes its lines from
// these entries and QoWatchCtl recognises lines by them. A field stands in a text as {name}: a
// decimal number, which may be negative; {name:s} is any text, {name:h} a word without spaces (a
// handle as the stream prints it). Portable C++17: QoWatchCtl's reader builds on other systems too.
#define QO_LOG_MESSAGES(X)                                                                                   \
    X(START, INFO, "Start Watch Dog")                                                                        \
    X(LOG_PATH_FAILED, ERROR, "GetKeldDebugLogPath failed. msg:{why:s}")                                     \
    X(STARTED, INFO, "Watch Dog started")                                                                    \
    X(TERMINATE_EVENT_FAILED, ERROR, "Failed to create watch dog terminate event")                           \
    X(TERMINATE_PENDING, INFO, "Product Adapter notifies Watch Dog to terminate.")                           \
    X(ANOTHER_INSTANCE, ERROR, "Another instance is running!!")                                              \
    X(MUTEX_FAILED, ERROR, "create mutex fail!!")                                                            \
    X(RUN_KEY_STARTED, INFO, "Watch Dog started by runkey")                                                  \
    X(EXPLORER_NOT_READY, ERROR, "waitExplorerProcessReady return false, Session Agent fail to create!!")    \
    X(RUN_KEY_EXIT, INFO, "Exit Watch Dog From Run Key. nRet={ret}")                                         \
    X(SESSION_ID_FAILED, ERROR, "ProcessIdToSessionId Error:{err}")                                          \
    X(ENUM_SESSION_FAILED, ERROR, "EnumUserSession fail")                                                    \
    X(RELOAD_OPEN_FAILED, ERROR, "Open Watch Dog Reload Event failed. Err={err}")                            \
    X(RELOAD_SET_FAILED, ERROR, "Set Watch Dog Reload failed. Err={err}")                                    \
    X(RELOAD_SET, INFO, "Set Watch Dog Reload successfully. ")                                               \
    X(HAND_OVER, INFO, "event BREVANT_START_KELD_WITHOUT_UAC exists")                                        \
    X(HAND_OVER_SET_FAILED, ERROR, "oEventStartKeldWithoutUac.Set() Err={err}")                              \
    X(HAND_OVER_WAIT, INFO,                                                                                  \
      "event BREVANT_START_KELD_WITHOUT_UAC or another watch dog instance still exists")                     \
    X(HAND_OVER_DONE, INFO, "event BREVANT_START_KELD_WITHOUT_UAC and instance pre-checking done")           \
    X(WORKING_PATH_FAILED, ERROR, "Fail to get working path!!")                                              \
    X(AGENT_PATH_FAILED, ERROR, "Fail to get Session Agent path!!")                                          \
    X(INSTANCE_FAILED, ERROR, "CWatchDog::GetInstance() Failed")                                             \
    X(INSTALL_KEY_OPEN_FAILED, ERROR,                                                                        \
      "Fail to open Software\\Corvane\\Brevant\\0\\Install key under HKEY_LOCAL_MACHINE. err={err}")         \
    X(SE_AGNT_MAX_NUM, INFO, "Load SeAgntMaxNum={count}")                                                    \
    X(CREATE_EVENT_FAILED, ERROR, "CreateEvent() fail. err={err}")                                           \
    X(NO_TERMINATED_EVENT, INFO, "no terminated event exists.")                                              \
    X(GATE_WAIT, INFO, "Wait for set start event.")                                                          \
    X(GATE_NOTIFY_FAILED, ERROR, "RegNotifyChangeKeyValue() fail. err={err}")                                \
    X(GATE_HOST_ENDED, ERROR, "Service process is shutdown.")                                                \
    X(GATE_KEY_CHANGED, INFO, "Regkey is changed. check again.")                                             \
    X(GATE_TERMINATE, INFO, "service notify terminate while installation.")                                  \
    X(GATE_ABANDONED, ERROR, "this should not happen, only mutex handle throws such error.")                 \
    X(GATE_TIMEOUT, ERROR, "this should not happen, this is a infinite wait.")                               \
    X(GATE_WAIT_FAILED, ERROR, "WaitForMultipleObjects() fail. error={err}")                                 \
    X(GATE_UNKNOWN_RETURN, ERROR, "Unknown return, error={ret}")                                             \
    X(INSTALL_KEY_RETURNED, ERROR,                                                                           \
      "Software\\Corvane\\Brevant\\0\\Install was deleted and created again: its SetStartEvent is watched "  \
      "again")                                                                                               \
    X(GATE_FAILED, ERROR, "Wait Start Event failed")                                                         \
    X(WORKING_PATH_EMPTY, ERROR, " Working Path {path:s} is empty")                                          \
    X(AGENT_PATH_EMPTY, ERROR, " Agent Path {path:s} is empty")                                              \
    X(CLOSE_EVENT_CREATE_FAILED, ERROR, "CreateEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE) Err={err}")            \
    X(CLOSE_NO_STOP_KELD_EVENT_FAILED, ERROR,                                                                \
      "CreateEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD) Err={err}")                                 \
    X(SESSION_MANAGER_FAILED, ERROR, " Create Session Manager failed")                                       \
    X(SESSION_MANAGER_NULL, ERROR, "m_shpSessionManager is NULL.")                                           \
    X(SESSION_CREATED, INFO, "m_shpSessionManager->IsCreated Ret={ret}")                                     \
    X(INSERT_SESSION_FAILED, ERROR, " Insert Session failed Err={err}")                                      \
    X(GETCWD_FAILED, ERROR, "_wgetcwd failed, system path left unchanged")                                   \
    X(KELD_PATH_REMOVED, INFO, "KELD path is found in system path, so remove it!")                           \
    X(NEW_SYSTEM_PATH, INFO, "new system path={path:s}")                                                     \
    X(ENV_KEY_OPEN_FAILED, ERROR, "CRegKey::Open(HKEY_LOCAL_MACHINE, REG_SYSTEM_ENV) Err={err}")             \
    X(PATH_QUERY_FAILED, ERROR, "CRegKey::QueryValue(ENVIRONMENT_PATH) Err={err}")                           \
    X(PATH_SET_FAILED, ERROR, "CRegKey::SetValue(ENVIRONMENT_PATH) Err={err}")                               \
    X(GATE_PASSED, INFO, "Exit Reload User Session on Startup")                                              \
    X(RELOAD_EVENT_FAILED, ERROR, "Failed to create watch dog reload event")                                 \
    X(STOP_EVENT_FAILED, ERROR, "CEvent(EVENT_ID_BREVANT_STOP_SERVICE) Failed")                              \
    X(CLOSE_AND_WAIT_EVENT_FAILED, ERROR, "Failed to create Close Session Agent and Waiting event")          \
    X(SHUTDOWN_EVENT_FAILED, ERROR, "Failed to create shutdown uiFramework event")                           \
    X(HOST_MISSING, ERROR, "Parent Process does not exist!!")                                                \
    X(MAIN_LOOP, INFO, "Enter WaitForMultipleObjects Main Loop")                                             \
    X(REQUEST_RELOAD, INFO, "Session Reload!!")                                                              \
    X(REQUEST_STOP, INFO, "Product Adapter Stop Event!!")                                                    \
    X(REQUEST_TERMINATE, INFO, "Product Adapter Terminate Event!!")                                          \
    X(HOST_ENDED, INFO, "Product Adapter Ombrine Crash Event!!")                                             \
    X(REQUEST_UPDATE, INFO, "Update Event!!")                                                                \
    X(REQUEST_CLOSE_AND_WAIT, INFO, "Close Session Agent and Waiting Event!!")                               \
    X(MAIN_WAIT_FAILED, ERROR, "WaitForMultipleObjects Error")                                               \
    X(CLOSE_EVENT_OPEN_FAILED, ERROR, "CEvent(EVENT_ID_BREVANT_WATCHDOG_CLOSE) Err={err}")                   \
    X(START_SERVICE_EVENT_FAILED, ERROR, "CEvent(EVENT_ID_BREVANT_START_SERVICE) Err={err}")                 \
    X(HOST_OPEN_FAILED, ERROR, "OpenProcess dwPID={pid} , Err={err}")                                        \
    X(SCM_OPEN_FAILED, ERROR, "OpenSCManager, GetLastError={err}")                                           \
    X(SERVICE_OPEN_FAILED, ERROR, "OpenService, GetLastError={err}")                                         \
    X(KELD_RUNNING, INFO, "KELD service is running.")                                                        \
    X(KELD_START, INFO, "Start KELD service.")                                                               \
    X(MONITOR_WAIT_BEGIN, INFO, "Start to Wait for All Monitor Thread.")                                     \
    X(NO_MONITOR, INFO, "No Monitor Thread to be Waited.")                                                   \
    X(MONITOR_WAIT_END, INFO, "Wait for All Monitor Thread. dwRet={ret}")                                    \
    X(FINISHED, INFO, "Watch Dog finished")                                                                  \
    X(SNAPSHOT_FAILED, ERROR, "CreateToolhelp32Snapshot Err={err}")                                          \
    X(SHELL_CHANGED, ERROR,                                                                                  \
      "Shell process id={pid} of session {session} now names {name:s} in session {now}: its token is not "   \
      "used")                                                                                                \
    X(SHELL_OPEN_FAILED, ERROR, "OpenProcess Err={err}")                                                     \
    X(SHELL_TOKEN_FAILED, ERROR, "OpenProcessToken Err={err}")                                               \
    X(OUT_OF_MEMORY, ERROR, "Out of Memory")                                                                 \
    X(EXPLORER_PID, INFO, "Explorer.exe PID={pid}")                                                          \
    X(REVERT_FAILED, ERROR, "RevertToSelf GetLastError={err}")                                               \
    X(GET_WINSTA_FAILED, ERROR, "GetProcessWindowStation GetLastError={err}")                                \
    X(OPEN_WINSTA_FAILED, ERROR, "OpenWindowStationW GetLastError={err}")                                    \
    X(SET_WINSTA_FAILED, ERROR, "SetProcessWindowStation GetLastError={err}")                                \
    X(OPEN_DESKTOP_FAILED, ERROR, "OpenDesktopW GetLastError={err}")                                         \
    X(IMPERSONATE_FAILED, ERROR, "ImpersonateLoggedOnUser GetLastError={err}")                               \
    X(DUPLICATE_TOKEN_FAILED, ERROR, "DuplicateTokenEx Err={err}")                                           \
    X(CREATE_PROCESS_FAILED, ERROR, "CreateProcessAsUser GetLastError={err}")                                \
    X(AGENT_CREATED, INFO, "Newly created process id={pid}")                                                 \
    X(LAUNCH_NO_MEMORY, ERROR, "LaunchInteractiveProcess failed: out of memory")                             \
    X(AGENT_STARTED, INFO, " Create Session Agent successfully session ID = {session}")                      \
    X(AGENT_START_FAILED, ERROR, " Create Session Agent failed session ID = {session}")                      \
    X(MONITOR_EVENT_FAILED, ERROR, "CreateEvent(m_hReloadEvent) Err={err}")                                  \
    X(SESSION_ON, INFO, "session ({session}) is on again.")                                                  \
    X(MONITOR_EVENT_NULL, ERROR, "m_hReloadEvent is NULL.")                                                  \
    X(MONITOR_RELOAD_FAILED, ERROR, "Set Reload Event Err={err}")                                            \
    X(SESSION_OFF, INFO, "session ({session}) is off.")                                                      \
    X(NO_AGENT_TO_WAIT, INFO, "No Session Agent Needs to Wait.")                                             \
    X(AGENT_WAIT_BEGIN, INFO, "Start to Wait for All Session Agent.")                                        \
    X(AGENT_WAIT_END, INFO, "Wait for All Session Agent. dwRet={ret}")                                       \
    X(KELD_STOP, INFO, "KELD Stop")                                                                          \
    X(AGENT_EXITS, INFO, "Session agent exits, graceful={graceful}, handle={handle:h}, exitcode={exitcode}") \
    X(RECREATE_FAILED, ERROR, "Session Agent re-create failed")                                              \
    X(NO_SESSION, INFO, "No session to monitor.")                                                            \
    X(MONITOR_WAIT_FAILED, ERROR, "WaitForMultipleObjects, dwRet={ret}, GetLastError={err}")                 \
    X(SDDL_FAILED, ERROR, "ConvertStringSecurityDescriptorToSecurityDescriptorW Err={err}")                  \
    X(LINES_LOST, ERROR, "{count} log lines lost: the log could not be written, last error={err}")           \
    X(WRITER_MUTEX_HELD, ERROR,                                                                              \
      "Log writer mutex {mutex:s} held by another process for {ms} ms, lines are written without it")

namespace QoLog {

enum class EMsg {
#define QO_LOG_MESSAGE_ID(id, level, text) id,
    QO_LOG_MESSAGES(QO_LOG_MESSAGE_ID)
#undef QO_LOG_MESSAGE_ID
};

struct SMessage {
    const char* pszId;  // the entry's name, as QoWatchCtl shows it
    const char* pszText;
    EMsg eId;
    bool bError;  // written as [ERROR], else [INFO]
};

inline constexpr SMessage MESSAGES[] = {
#define QO_LOG_MESSAGE_ENTRY(id, level, text) {#id, text, EMsg::id, #level[0] == 'E'},
    QO_LOG_MESSAGES(QO_LOG_MESSAGE_ENTRY)
#undef QO_LOG_MESSAGE_ENTRY
};

inline constexpr size_t MESSAGE_COUNT = sizeof(MESSAGES) / sizeof(MESSAGES[0]);

constexpr const SMessage& Message(EMsg eId) { return MESSAGES[static_cast<size_t>(eId)]; }

constexpr size_t FieldCount(const char* pszText) {
    size_t n = 0;
    for (; *pszText != '\0'; ++pszText) {
        n += *pszText == '{' ? 1 : 0;
    }
    return n;
}

// A message as a value the statement macros take: its entry is known when the program is built.
template <EMsg E>
using Msg = std::integral_constant<EMsg, E>;

namespace detail {

// Writes the text from p up to its next field (or its end); returns what follows that field.
template <class CharT>
const char* WriteLiteral(std::basic_ostream<CharT>& out, const char* p) {
    for (; *p != '\0' && *p != '{'; ++p) {
        out.put(out.widen(*p));
    }
    while (*p != '\0' && *p != '}') {
        ++p;
    }
    return *p == '}' ? p + 1 : p;
}

}  // namespace detail

// Writes a message's text with its fields in order. Used by the watchdog's log statements and by
// the tests that check QoWatchCtl reads every message back.
template <EMsg E, class CharT, class... Fields>
void WriteMessage(std::basic_ostream<CharT>& out, Msg<E> /*message*/, const Fields&... fields) {
    static_assert(FieldCount(Message(E).pszText) == sizeof...(Fields),
                  "a value for each field of the message");
    const char* p = Message(E).pszText;
    ((p = detail::WriteLiteral(out, p), out << fields), ...);
    detail::WriteLiteral(out, p);
}

}  // namespace QoLog

// The messages as values for the statement macros: QO_LOG(QoMsg::AGENT_CREATED, dwPid).
namespace QoMsg {
#define QO_LOG_MESSAGE_VALUE(id, level, text) inline constexpr QoLog::Msg<QoLog::EMsg::id> id{};
QO_LOG_MESSAGES(QO_LOG_MESSAGE_VALUE)
#undef QO_LOG_MESSAGE_VALUE
}  // namespace QoMsg
