#pragma once

// The names through which the watchdog meets the other client components, its run-key instances, a
// successor supervisor and QoWatchCtl. The names are the contract: exact.

// Named kernel objects.
#define EVENT_ID_BREVANT_TERMINATE_WATCHDOG L"Global\\EVENT_ID_BREVANT_TERMINATE_WATCHDOG"
#define QO_WATCH_DOG_NAMED_MUTEX L"Global\\_QO_WATCH_DOG_NAMED_MUTEX"
#define EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC L"Global\\EVENT_ID_BREVANT_START_KELD_WITHOUT_UAC"
#define EVENT_ID_BREVANT_WATCHDOG_RELOAD L"Global\\EVENT_ID_BREVANT_WATCHDOG_RELOAD"
#define EVENT_ID_BREVANT_STOP_SERVICE L"Global\\EVENT_ID_BREVANT_STOP_SERVICE"
#define EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK L"Global\\EVENT_ID_BREVANT_SHUTDOWN_UIFRAMEWORK"
#define EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING \
    L"Global\\EVENT_ID_BREVANT_TERMINATE_SESSION_AGENT_AND_WAITING"
#define EVENT_ID_BREVANT_WATCHDOG_CLOSE L"Global\\EVENT_ID_BREVANT_WATCHDOG_CLOSE"
#define EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD L"Global\\EVENT_ID_BREVANT_WATCHDOG_CLOSE_NO_STOP_KELD"
#define EVENT_ID_BREVANT_START_SERVICE L"Global\\EVENT_ID_BREVANT_START_SERVICE"
#define QO_WATCH_DOG_LOG_WRITER_MUTEX L"Global\\QO_WATCH_DOG_LOG_WRITER"

// The registry, under HKEY_LOCAL_MACHINE.
#define REG_INSTALL_KEY L"Software\\Corvane\\Brevant\\0\\Install"
#define REG_VALUE_SE_AGNT_MAX_NUM L"SeAgntMaxNum"
#define REG_VALUE_SET_START_EVENT L"SetStartEvent"
#define REG_KELD_KEY L"SOFTWARE\\Corvane\\Keld"
#define REG_VALUE_INSTALL_DIR L"InstallDir"
#define REG_SYSTEM_ENV L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment"
#define ENVIRONMENT_PATH L"Path"

// The platform service, the log and the agent's location in the platform directory.
#define KELD_SERVICE_NAME L"Keld"
#define LOG_FILE_NAME L"QoWatchDog.log"
#define WATCHDOG_IMAGE_NAME L"QoWatchDog.exe"
#define SHELL_IMAGE_NAME L"explorer.exe"
#define SESSION_AGENT_INI L"Session_Agent.ini"
#define SESSION_AGENT_SECTION L"Session_Agent"
#define SESSION_AGENT_KEY_PATH L"Path"
#define SESSION_AGENT_KEY_NAME L"Name"
