/* Fixed PCD values of the firmware build, for MdePkg sources compiled on the host. */
#ifndef HOST_PCD_H_
#define HOST_PCD_H_

#define _PCD_GET_MODE_32_PcdMaximumLinkedListLength               1000000U
#define _PCD_GET_MODE_32_PcdMaximumAsciiStringLength              1000000U
#define _PCD_GET_MODE_32_PcdMaximumUnicodeStringLength            1000000U
#define _PCD_GET_MODE_32_PcdControlFlowEnforcementPropertyMask    0U
#define _PCD_GET_MODE_8_PcdSpeculationBarrierType                 0x01U
#define _PCD_GET_MODE_BOOL_PcdVerifyNodeInList                    0
#define _PCD_GET_MODE_32_PcdUefiLibMaxPrintBufferSize             320U
#define _PCD_GET_MODE_BOOL_PcdUgaConsumeSupport                   1
#define _PCD_GET_MODE_BOOL_PcdDriverDiagnosticsDisable            0
#define _PCD_GET_MODE_BOOL_PcdComponentNameDisable                0
#define _PCD_GET_MODE_BOOL_PcdDriverDiagnostics2Disable           0
#define _PCD_GET_MODE_BOOL_PcdComponentName2Disable               0
#define _PCD_GET_MODE_32_PcdMaximumDevicePathNodeCount            0U
#define _PCD_VALUE_PcdMaximumDevicePathNodeCount                  0U
#define _PCD_GET_MODE_8_PcdDebugPropertyMask                      0U
#define _PCD_GET_MODE_32_PcdFixedDebugPrintErrorLevel             0xFFFFFFFFU
/* The FAT driver and the English collation: RFC 4646 first, ISO 639-2 as fallback. */
#define _PCD_GET_MODE_PTR_PcdUefiVariableDefaultPlatformLang      ((VOID *)"en-US")
#define _PCD_GET_MODE_PTR_PcdUefiVariableDefaultLang              ((VOID *)"eng")
#define _PCD_GET_MODE_BOOL_PcdUnicodeCollationSupport             1
#define _PCD_GET_MODE_BOOL_PcdUnicodeCollation2Support            1

#endif
