// A program as it was written for the handheld: it looks through the messages of an outbox with a few threads, shows
// how far it is in a window's messages, and writes a report. For this system its includes were changed and nothing
// else; they had been
//
//     #include <windows.h>
//     #include <tchar.h>
//
// It works in the folder \Outbox, which it fills with three messages of its own where there is none, and keeps its
// settings in the registry. With ZR_DEBUG_OUTPUT=1 one can see what it says on the way.

#include <platform/generic_names.h>
#include <platform/win_main.h>

#define WM_MESSAGE_READ (WM_APP + 1)  // wParam: the worker's number, lParam: a MESSAGEINFO, for LocalFree
#define IDT_WATCHDOG 1
#define MAX_WORKERS 8

const TCHAR g_szKey[] = TEXT("Software\\Outbox");
const TCHAR g_szFolder[] = TEXT("\\Outbox");
const TCHAR g_szReport[] = TEXT("\\Outbox\\report.txt");

// A file that waits for a worker.
typedef struct tagQUEUEITEM {
    SLIST_ENTRY link;
    TCHAR szPath[MAX_PATH];
} QUEUEITEM, *PQUEUEITEM;

// What a worker has found out.
typedef struct tagMESSAGEINFO {
    TCHAR szName[MAX_PATH];
    DWORD cbSize;
    DWORD cLines;
} MESSAGEINFO, *PMESSAGEINFO;

typedef struct tagAPP {
    HWND hWnd;
    HANDLE hItems;  // a semaphore: how many files wait
    HANDLE hStop;
    SLIST_HEADER queue;
    CRITICAL_SECTION cs;  // of the totals
    DWORD cFiles;
    DWORD cRead;
    DWORD cbTotal;
    DWORD cLines;
    DWORD cWorkers;
    HANDLE ahWorkers[MAX_WORKERS];
} APP;

APP g_app;

// Text for who watches.
void Say(LPCTSTR pszFormat, ...) {
    TCHAR szText[512];
    va_list args;
    va_start(args, pszFormat);
    wvsprintf(szText, pszFormat, args);
    va_end(args);
    OutputDebugString(szText);
}

// --- Settings --------------------------------------------------------------------------------------------------------

DWORD ReadSetting(LPCTSTR pszName, DWORD dwDefault) {
    HKEY hKey;
    DWORD dwValue = dwDefault;
    DWORD dwType;
    DWORD cb = sizeof(dwValue);
    if (RegOpenKeyEx(HKEY_CURRENT_USER, g_szKey, 0, 0, &hKey) != ERROR_SUCCESS) return dwDefault;
    if (RegQueryValueEx(hKey, pszName, NULL, &dwType, (LPBYTE)&dwValue, &cb) != ERROR_SUCCESS || dwType != REG_DWORD) {
        dwValue = dwDefault;
    }
    RegCloseKey(hKey);
    return dwValue;
}

BOOL WriteSetting(LPCTSTR pszName, DWORD dwValue) {
    HKEY hKey;
    DWORD dwDisposition;
    LONG lResult;
    if (RegCreateKeyEx(HKEY_CURRENT_USER, g_szKey, 0, NULL, 0, 0, NULL, &hKey, &dwDisposition) != ERROR_SUCCESS) {
        return FALSE;
    }
    lResult = RegSetValueEx(hKey, pszName, 0, REG_DWORD, (const BYTE*)&dwValue, sizeof(dwValue));
    RegCloseKey(hKey);
    return lResult == ERROR_SUCCESS;
}

// --- The outbox ------------------------------------------------------------------------------------------------------

BOOL WriteTextFile(LPCTSTR pszPath, LPCSTR pszText) {
    HANDLE hFile;
    DWORD cbWritten;
    BOOL fResult;
    hFile = CreateFile(pszPath, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (hFile == INVALID_HANDLE_VALUE) return FALSE;
    fResult = WriteFile(hFile, pszText, (DWORD)strlen(pszText), &cbWritten, NULL);
    CloseHandle(hFile);
    return fResult && cbWritten == strlen(pszText);
}

BOOL FillOutbox() {
    static const LPCSTR apszTexts[] = {"To: jo@example.org\r\n\r\nSee you at nine.\r\n",
                                       "To: al@example.org\r\n\r\nThe list:\r\n- one\r\n- two\r\n",
                                       "To: team@example.org\r\n\r\nDone.\r\n"};
    TCHAR szPath[MAX_PATH];
    int i;
    if (!CreateDirectory(g_szFolder, NULL)) return GetLastError() == ERROR_ALREADY_EXISTS;
    for (i = 0; i < (int)ARRAYSIZE(apszTexts); i++) {
        wsprintf(szPath, TEXT("%s\\message%d.eml"), g_szFolder, i + 1);
        if (!WriteTextFile(szPath, apszTexts[i])) return FALSE;
    }
    return TRUE;
}

// Puts each message into the queue, and lets a worker go for it.
BOOL QueueMessages() {
    WIN32_FIND_DATA fd;
    TCHAR szPattern[MAX_PATH];
    HANDLE hFind;
    PQUEUEITEM pItem;
    wsprintf(szPattern, TEXT("%s\\*.eml"), g_szFolder);
    hFind = FindFirstFile(szPattern, &fd);
    if (hFind == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_NO_MORE_FILES;
    do {
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        pItem = (PQUEUEITEM)LocalAlloc(LPTR, sizeof(QUEUEITEM));
        if (pItem == NULL) break;
        wsprintf(pItem->szPath, TEXT("%s\\%s"), g_szFolder, fd.cFileName);
        InterlockedPushEntrySList(&g_app.queue, &pItem->link);
        g_app.cFiles++;
        ReleaseSemaphore(g_app.hItems, 1, NULL);
    } while (FindNextFile(hFind, &fd));
    FindClose(hFind);
    return TRUE;
}

// --- Workers ---------------------------------------------------------------------------------------------------------

PMESSAGEINFO ReadMessage(LPCTSTR pszPath) {
    HANDLE hFile;
    PMESSAGEINFO pInfo;
    char achBuffer[256];
    DWORD cbRead;
    DWORD i;
    hFile = CreateFile(pszPath, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
    if (hFile == INVALID_HANDLE_VALUE) return NULL;
    pInfo = (PMESSAGEINFO)LocalAlloc(LPTR, sizeof(MESSAGEINFO));
    if (pInfo != NULL) {
        lstrcpyn(pInfo->szName, _tcsrchr(pszPath, TEXT('\\')) + 1, ARRAYSIZE(pInfo->szName));
        while (ReadFile(hFile, achBuffer, sizeof(achBuffer), &cbRead, NULL) && cbRead > 0) {
            pInfo->cbSize += cbRead;
            for (i = 0; i < cbRead; i++) {
                if (achBuffer[i] == '\n') pInfo->cLines++;
            }
        }
    }
    CloseHandle(hFile);
    return pInfo;
}

DWORD WINAPI WorkerThread(LPVOID lpParameter) {
    const WPARAM nWorker = (WPARAM)(LONG_PTR)lpParameter;
    HANDLE ahWait[2];
    PQUEUEITEM pItem;
    PMESSAGEINFO pInfo;
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
    ahWait[0] = g_app.hStop;
    ahWait[1] = g_app.hItems;
    while (WaitForMultipleObjects(ARRAYSIZE(ahWait), ahWait, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
        pItem = (PQUEUEITEM)InterlockedPopEntrySList(&g_app.queue);
        if (pItem == NULL) continue;
        pInfo = ReadMessage(pItem->szPath);
        LocalFree(pItem);
        if (pInfo != NULL) {
            EnterCriticalSection(&g_app.cs);
            g_app.cbTotal += pInfo->cbSize;
            g_app.cLines += pInfo->cLines;
            LeaveCriticalSection(&g_app.cs);
        }
        PostMessage(g_app.hWnd, WM_MESSAGE_READ, nWorker, (LPARAM)pInfo);
    }
    return 0;
}

BOOL StartWorkers() {
    DWORD dwId;
    DWORD i;
    g_app.cWorkers = ReadSetting(TEXT("Workers"), 3);
    if (g_app.cWorkers == 0 || g_app.cWorkers > MAX_WORKERS) g_app.cWorkers = MAX_WORKERS;
    for (i = 0; i < g_app.cWorkers; i++) {
        g_app.ahWorkers[i] = CreateThread(NULL, 0, WorkerThread, (LPVOID)(LONG_PTR)i, 0, &dwId);
        if (g_app.ahWorkers[i] == NULL) return FALSE;
    }
    return TRUE;
}

void StopWorkers() {
    DWORD i;
    SetEvent(g_app.hStop);
    WaitForMultipleObjects(g_app.cWorkers, g_app.ahWorkers, TRUE, INFINITE);
    for (i = 0; i < g_app.cWorkers; i++) {
        CloseHandle(g_app.ahWorkers[i]);
    }
}

// --- The window ------------------------------------------------------------------------------------------------------

LRESULT CALLBACK MainWndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    PMESSAGEINFO pInfo;
    switch (uMsg) {
        case WM_CREATE:
            SetTimer(hWnd, IDT_WATCHDOG, 30000, NULL);
            return 0;
        case WM_MESSAGE_READ:
            pInfo = (PMESSAGEINFO)lParam;
            if (pInfo != NULL) {
                Say(TEXT("%s: %u bytes, %u lines\n"), pInfo->szName, pInfo->cbSize, pInfo->cLines);
                LocalFree(pInfo);
            }
            if (++g_app.cRead == g_app.cFiles) DestroyWindow(hWnd);
            return 0;
        case WM_TIMER:
            Say(TEXT("only %u of %u messages were read in time\n"), g_app.cRead, g_app.cFiles);
            DestroyWindow(hWnd);
            return 0;
        case WM_DESTROY:
            KillTimer(hWnd, IDT_WATCHDOG);
            PostQuitMessage(g_app.cRead == g_app.cFiles ? 0 : 1);
            return 0;
        default:
            return DefWindowProc(hWnd, uMsg, wParam, lParam);
    }
}

BOOL InitInstance(HINSTANCE hInstance) {
    WNDCLASS wc;
    ZeroMemory(&wc, sizeof(wc));
    wc.lpfnWndProc = MainWndProc;
    wc.hInstance = hInstance;
    wc.lpszClassName = TEXT("OutboxMain");
    if (!RegisterClass(&wc)) return FALSE;
    g_app.hWnd = CreateWindow(TEXT("OutboxMain"), TEXT("Outbox"), WS_OVERLAPPED, CW_USEDEFAULT, CW_USEDEFAULT,
                              CW_USEDEFAULT, CW_USEDEFAULT, NULL, NULL, hInstance, NULL);
    return g_app.hWnd != NULL;
}

BOOL WriteReport() {
    TCHAR szReport[128];
    char szNarrow[128];
    wsprintf(szReport, TEXT("%u messages, %u bytes, %u lines\r\n"), g_app.cRead, g_app.cbTotal, g_app.cLines);
    Say(TEXT("report: %s"), szReport);
    WideCharToMultiByte(CP_ACP, 0, szReport, -1, szNarrow, sizeof(szNarrow), NULL, NULL);
    return WriteTextFile(g_szReport, szNarrow) && WriteSetting(TEXT("Runs"), ReadSetting(TEXT("Runs"), 0) + 1);
}

int WINAPI WinMain(HINSTANCE hInstance, HINSTANCE hPrevInstance, LPTSTR lpCmdLine, int nCmdShow) {
    MSG msg;
    HANDLE hOnce;
    BOOL fGood;
    UNREFERENCED_PARAMETER(hPrevInstance);
    UNREFERENCED_PARAMETER(nCmdShow);
    if (*lpCmdLine != TEXT('\0')) Say(TEXT("no arguments, please: %s\n"), lpCmdLine);
    hOnce = CreateMutex(NULL, FALSE, TEXT("OutboxIsRunning"));
    if (hOnce == NULL || GetLastError() == ERROR_ALREADY_EXISTS) {
        Say(TEXT("the outbox is being looked at already\n"));
        return 2;
    }
    InitializeCriticalSection(&g_app.cs);
    InitializeSListHead(&g_app.queue);
    g_app.hItems = CreateSemaphore(NULL, 0, 0x7FFFFFFF, NULL);
    g_app.hStop = CreateEvent(NULL, TRUE, FALSE, NULL);
    fGood = FillOutbox() && InitInstance(hInstance) && StartWorkers() && QueueMessages() && g_app.cFiles > 0;
    msg.wParam = 1;
    while (fGood && GetMessage(&msg, NULL, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessage(&msg);
    }
    StopWorkers();
    if (fGood && !WriteReport()) msg.wParam = 1;
    CloseHandle(g_app.hItems);
    CloseHandle(g_app.hStop);
    DeleteCriticalSection(&g_app.cs);
    CloseHandle(hOnce);
    return (int)msg.wParam;
}
