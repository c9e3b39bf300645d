#!/usr/bin/env bash
# liborvo.so exports its API and nothing else: every symbol it defines in its
# dynamic symbol table (nm -D --defined-only) must be
#  - a name of namespace orvo that an installed header declares (listed
#    below by family), or such a class's vtable, typeinfo or thunk; internal
#    namespaces (hooks, blockfile_io, loop, ...) and source-only classes are
#    not on the list, so exporting them fails;
#  - or a weak instantiation of a standard library template (the compiler
#    emits those wherever a template is used; they are not the library's),
#    or a sanitizer build's instrumentation symbol.
# Usage: exports_test.sh path/to/liborvo.so
set -uo pipefail
lib="$1"

allowed="
orvo_aes: cAES
orvo_base64: cBase64
orvo_blockfile: GetBlockFileErrorText cBlock cBlockFile cRecordFile
orvo_bytebuffer: cByteBuffer
orvo_channel: cChannel
orvo_crc: addByte2CRC16 checkCRC16 createCRC16 initCRC16 verifyCRC16
orvo_data: cData cHelper
orvo_eeprom: cEEPROM cEEPROM_Pattern
orvo_hash: cHashCalculator cSHA256Calculator cSHA1Calculator cMD5Calculator cHMACSHA256Calculator
orvo_handle: HandleAlive HandleCount HandleCreate HandleOf HandleRelease HandleResolve
orvo_icmp: cIcmpSocket
orvo_init: GetConfig GetExeName GetIfConfByName GetOrvoVersion GetPid OnArg_Bool OnArg_Int OnArg_Text Sleep orvoDeinit orvoInit orvoParseArgs orvoSetTransferHooks
orvo_membuffer: cMemBuffer cMemBufferData
orvo_msg: cMsg
orvo_msgsocket: cFrameReader cMsgTcpSocket cMsgUdpSocket cTpktTcpSocket cTpktUdpSocket g_FrameLock
orvo_msgthread: cMsgThread
orvo_netmgr: cNetworkManager
orvo_obis: cObis
orvo_object: AssertFailed cObject
orvo_process: cProcess
orvo_proxysocket: cProxySocket
orvo_record: cRecord cRecordPar cRecordString
orvo_recordmerge: BuildtConfigRecord ChangeRecord SearchRecordPar _ChangeRecord
orvo_recordpath: cRecordList cRecordPath cRecordPathEntry
orvo_scm: cScmService gSCMsocket
orvo_scmio: cScmServiceIO cScmServiceInfo
orvo_service: cService SendSnoop mMainService
orvo_sharedmem: CloseSharedCells GetOSC GetStatusW ModifyStatusW SetStatusW ToggleWD cBaseSharedMemory gSmOsc gSmStatusW
orvo_socket: cSocket cTcpSocket cTcpServer cUdpSocket
orvo_socketaddr: cSocketAddr
orvo_statem: cStateMachine
orvo_thread: cCriticalSection cEvent cSemaphore cThread
orvo_time: DayOfMonth GetMsecClock GetMsecClockCoarse SetMsecClockOverride cTime
orvo_timer: cRasterTimer cTimer
orvo_tls: openssl_create_modern_ssl_ctx openssl_create_ssl_ctx openssl_error_reason openssl_free_ssl_ctx openssl_lib_init openssl_show_peer_certificate
orvo_trace: ClearTraceUnits FormatString GetTraceLevelTxt RegisterTraceChannel SendTrace SetTraceLevel SetTraceOut UnRegisterTraceChannel UnitDefault UnitORVO _Trace cUnit mUnits
orvo_uart: cUart cUartFormat
orvo_uuid: cUuid
"
# type, mangled name and demangled name of each symbol, one a line.
raw="$(nm -D --defined-only "$lib")" || { echo "exports_test: nm failed on $lib"; exit 1; }
[ -n "$raw" ] || { echo "exports_test: no dynamic symbols in $lib"; exit 1; }
demangled="$(nm -DC --defined-only "$lib" | cut -d' ' -f3-)"
table="$(paste -d'\t' <(echo "$raw" | awk '{print $2 "\t" $3}') <(echo "$demangled"))"

echo "$table" | awk -F'\t' -v names="$(echo "$allowed" | sed 's/^[^:]*://' | tr '\n' ' ')" '
BEGIN { n = split(names, list, " "); for (i = 1; i <= n; ++i) ok[list[i]] = 1 }
{
    type = $1; mangled = $2; name = $3; ++count
    if (mangled ~ /^(__odr_asan|__asan_|__tsan_|__ubsan_|__sanitizer_)/) next   # instrumentation
    sub(/^(vtable for|typeinfo for|typeinfo name for|VTT for|construction vtable for|non-virtual thunk to|virtual thunk to|guard variable for) /, "", name)
    if (name ~ /^((void|bool) )?(std|__gnu_cxx)::/) {
        if (type == "W" || type == "V" || type == "u") next
        print "not the API (a standard template instantiated as a strong symbol): " $3; ++bad; next
    }
    sub(/^[A-Za-z_][A-Za-z_0-9 *&]* orvo::/, "orvo::", name)
    if (match(name, /^orvo::[A-Za-z_0-9]+/)) {
        first = substr(name, 7, RLENGTH - 6)
        if (first in ok) next
    }
    print "not the API: " $3; ++bad
}
END { printf "exports_test: %d symbols, %d outside the API\n", count, bad; exit bad > 0 }'
