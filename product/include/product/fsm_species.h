/**
 * @file
 * The product's catalogue of state machines: the species of module
 * FSMMOD_NONFSM, in index order. Product data, not framework data: the
 * framework learns it through fsm_setProductSpecieNames.
 */
#ifndef PRODUCT_FSM_SPECIES_H
#define PRODUCT_FSM_SPECIES_H

#include "fsm/fsm_types.h"

#pragma GCC visibility push(default)

enum ProductSpecie {
    ETH_DRV = FSM_MAKE_ID(FSMMOD_NONFSM, 0),
    SERIAL_DRV,
    USB_DRV,
    AUDIO_DRV,
    VIDEO_DRV,
    CAMERA_DRV,
    DISPLAY_DRV,
    KEYPAD_DRV,
    LED_DRV,
    FAN_DRV,
    CALL_CTRL,
    MEDIA_CTRL,
    RTP_HANDLER,
    DHCP_CLIENT,
    DNS_RESOLVER,
    NTP_CLIENT,
    SNMP_AGENT,
    HTTP_SERVER,
    TELNET_SERVER,
    SSH_SERVER,
    CONFIG_MGR,
    ALARM_MGR,
    LOG_SERVICE,
    UPGRADE_MGR,
    POWER_MGR,
    PROVISIONING,
    DIRECTORY_SVC,
    USER_IF,
    REMOTE_CTRL,
    PRODUCT_SPECIE_END
};

/** The names, ended by a null pointer (29 names). */
extern const char* const productFsmSpecieNames[];

/** Installs the catalogue with fsm_setProductSpecieNames; call before
 * sys_initFSMSystem. */
void product_installFsmSpecies(void);

#pragma GCC visibility pop
#endif
