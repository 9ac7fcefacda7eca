#pragma once

// System error codes (as GetLastError reports them) and COM result codes, with the platform's documented values.

#include "platform/types.h"

inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD NO_ERROR = 0;
inline constexpr DWORD ERROR_INVALID_FUNCTION = 1;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_BAD_FORMAT = 11;
inline constexpr DWORD ERROR_INVALID_DATA = 13;
inline constexpr DWORD ERROR_INVALID_ACCESS = 12;
inline constexpr DWORD ERROR_OUTOFMEMORY = 14;
inline constexpr DWORD ERROR_INVALID_DRIVE = 15;
inline constexpr DWORD ERROR_CURRENT_DIRECTORY = 16;
inline constexpr DWORD ERROR_NOT_SAME_DEVICE = 17;
inline constexpr DWORD ERROR_NO_MORE_FILES = 18;
inline constexpr DWORD ERROR_WRITE_PROTECT = 19;
inline constexpr DWORD ERROR_NOT_READY = 21;
inline constexpr DWORD ERROR_CRC = 23;
inline constexpr DWORD ERROR_SEEK = 25;
inline constexpr DWORD ERROR_WRITE_FAULT = 29;
inline constexpr DWORD ERROR_READ_FAULT = 30;
inline constexpr DWORD ERROR_GEN_FAILURE = 31;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_LOCK_VIOLATION = 33;
inline constexpr DWORD ERROR_HANDLE_EOF = 38;
inline constexpr DWORD ERROR_HANDLE_DISK_FULL = 39;
inline constexpr DWORD ERROR_NOT_SUPPORTED = 50;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_BROKEN_PIPE = 109;
inline constexpr DWORD ERROR_DISK_FULL = 112;
inline constexpr DWORD ERROR_CALL_NOT_IMPLEMENTED = 120;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
inline constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
inline constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
inline constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
inline constexpr DWORD ERROR_BAD_PATHNAME = 161;
inline constexpr DWORD ERROR_BUSY = 170;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_BAD_EXE_FORMAT = 193;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr DWORD ERROR_FILE_TOO_LARGE = 223;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
inline constexpr DWORD ERROR_DIRECTORY = 267;
inline constexpr DWORD ERROR_NOT_OWNER = 288;
inline constexpr DWORD ERROR_TOO_MANY_POSTS = 298;
inline constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
inline constexpr DWORD ERROR_INVALID_ADDRESS = 487;
inline constexpr DWORD ERROR_NOACCESS = 998;
inline constexpr DWORD ERROR_FILE_INVALID = 1006;
inline constexpr DWORD ERROR_INVALID_FLAGS = 1004;
inline constexpr DWORD ERROR_REGISTRY_CORRUPT = 1015;
inline constexpr DWORD ERROR_REGISTRY_IO_FAILED = 1016;
inline constexpr DWORD ERROR_KEY_DELETED = 1018;
inline constexpr DWORD ERROR_PROCESS_ABORTED = 1067;
inline constexpr DWORD ERROR_NO_UNICODE_TRANSLATION = 1113;
inline constexpr DWORD ERROR_IO_DEVICE = 1117;
inline constexpr DWORD ERROR_POSSIBLE_DEADLOCK = 1131;
inline constexpr DWORD ERROR_MAPPED_ALIGNMENT = 1132;
inline constexpr DWORD ERROR_TOO_MANY_LINKS = 1142;
inline constexpr DWORD ERROR_NOT_FOUND = 1168;
inline constexpr DWORD ERROR_CANCELLED = 1223;
inline constexpr DWORD ERROR_REVISION_MISMATCH = 1306;
inline constexpr DWORD ERROR_INVALID_WINDOW_HANDLE = 1400;
inline constexpr DWORD ERROR_INVALID_CURSOR_HANDLE = 1402;
inline constexpr DWORD ERROR_TLW_WITH_WSCHILD = 1406;
inline constexpr DWORD ERROR_CANNOT_FIND_WND_CLASS = 1407;
inline constexpr DWORD ERROR_WINDOW_OF_OTHER_THREAD = 1408;
inline constexpr DWORD ERROR_CLASS_ALREADY_EXISTS = 1410;
inline constexpr DWORD ERROR_CLASS_DOES_NOT_EXIST = 1411;
inline constexpr DWORD ERROR_CLASS_HAS_WINDOWS = 1412;
inline constexpr DWORD ERROR_INVALID_INDEX = 1413;
inline constexpr DWORD ERROR_INVALID_THREAD_ID = 1444;
inline constexpr DWORD ERROR_NO_SYSTEM_RESOURCES = 1450;
inline constexpr DWORD ERROR_TIMEOUT = 1460;
inline constexpr DWORD ERROR_RESOURCE_DATA_NOT_FOUND = 1812;
inline constexpr DWORD ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;
inline constexpr DWORD ERROR_RESOURCE_NAME_NOT_FOUND = 1814;
inline constexpr DWORD ERROR_NOT_ENOUGH_QUOTA = 1816;
inline constexpr DWORD ERROR_CANT_RESOLVE_FILENAME = 1921;
inline constexpr DWORD ERROR_FILE_CORRUPT = 1392;
inline constexpr DWORD ERROR_DISK_CORRUPT = 1393;

inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED = 0x80;
inline constexpr DWORD WAIT_ABANDONED_0 = 0x80;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

#define ZRPLATFORM_HRESULT(value) static_cast<HRESULT>(value##u)

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT NOERROR = 0;
inline constexpr HRESULT E_NOTIMPL = ZRPLATFORM_HRESULT(0x80004001);
inline constexpr HRESULT E_NOINTERFACE = ZRPLATFORM_HRESULT(0x80004002);
inline constexpr HRESULT E_POINTER = ZRPLATFORM_HRESULT(0x80004003);
inline constexpr HRESULT E_ABORT = ZRPLATFORM_HRESULT(0x80004004);
inline constexpr HRESULT E_FAIL = ZRPLATFORM_HRESULT(0x80004005);
inline constexpr HRESULT E_UNEXPECTED = ZRPLATFORM_HRESULT(0x8000FFFF);
inline constexpr HRESULT E_ACCESSDENIED = ZRPLATFORM_HRESULT(0x80070005);
inline constexpr HRESULT E_HANDLE = ZRPLATFORM_HRESULT(0x80070006);
inline constexpr HRESULT E_OUTOFMEMORY = ZRPLATFORM_HRESULT(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = ZRPLATFORM_HRESULT(0x80070057);
inline constexpr HRESULT DISP_E_MEMBERNOTFOUND = ZRPLATFORM_HRESULT(0x80020003);
inline constexpr HRESULT DISP_E_UNKNOWNNAME = ZRPLATFORM_HRESULT(0x80020006);
inline constexpr HRESULT STG_E_INVALIDFUNCTION = ZRPLATFORM_HRESULT(0x80030001);
inline constexpr HRESULT STG_E_INVALIDPOINTER = ZRPLATFORM_HRESULT(0x80030009);
inline constexpr HRESULT CLASS_E_NOAGGREGATION = ZRPLATFORM_HRESULT(0x80040110);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = ZRPLATFORM_HRESULT(0x80040111);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = ZRPLATFORM_HRESULT(0x80040154);
inline constexpr HRESULT CO_E_NOTINITIALIZED = ZRPLATFORM_HRESULT(0x800401F0);
inline constexpr HRESULT CO_E_CLASSSTRING = ZRPLATFORM_HRESULT(0x800401F3);
inline constexpr HRESULT RPC_E_CHANGED_MODE = ZRPLATFORM_HRESULT(0x80010106);
inline constexpr HRESULT STRSAFE_E_INSUFFICIENT_BUFFER = ZRPLATFORM_HRESULT(0x8007007A);
inline constexpr HRESULT STRSAFE_E_INVALID_PARAMETER = ZRPLATFORM_HRESULT(0x80070057);
inline constexpr HRESULT STRSAFE_E_END_OF_FILE = ZRPLATFORM_HRESULT(0x80070026);

inline constexpr WORD FACILITY_WIN32 = 7;

constexpr bool SUCCEEDED(HRESULT result) {
    return result >= 0;
}
constexpr bool FAILED(HRESULT result) {
    return result < 0;
}
// The HRESULT that stands for a system error code; 0 stays S_OK, a value that already is an HRESULT stays itself.
constexpr HRESULT HRESULT_FROM_WIN32(DWORD error) {
    return static_cast<HRESULT>(error) <= 0
               ? static_cast<HRESULT>(error)
               : static_cast<HRESULT>((error & 0xFFFF) | (DWORD{FACILITY_WIN32} << 16) | 0x80000000u);
}
