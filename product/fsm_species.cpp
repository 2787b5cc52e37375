/* The product's catalogue of state machines. The order is the specie
 * index and must match ProductSpecie. */
#include "product/fsm_species.h"

#include "fsm/fsm_glob.h"

const char* const productFsmSpecieNames[] = {
    "ETH_DRV",      "SERIAL_DRV",   "USB_DRV",     "AUDIO_DRV",     "VIDEO_DRV",   "CAMERA_DRV",
    "DISPLAY_DRV",  "KEYPAD_DRV",   "LED_DRV",     "FAN_DRV",       "CALL_CTRL",   "MEDIA_CTRL",
    "RTP_HANDLER",  "DHCP_CLIENT",  "DNS_RESOLVER", "NTP_CLIENT",   "SNMP_AGENT",  "HTTP_SERVER",
    "TELNET_SERVER", "SSH_SERVER",  "CONFIG_MGR",  "ALARM_MGR",     "LOG_SERVICE", "UPGRADE_MGR",
    "POWER_MGR",    "PROVISIONING", "DIRECTORY_SVC", "USER_IF",     "REMOTE_CTRL", nullptr,
};

static_assert(sizeof(productFsmSpecieNames) / sizeof(productFsmSpecieNames[0]) ==
                  FSM_ID_INDEX(PRODUCT_SPECIE_END) + 1,
              "catalogue and ProductSpecie disagree");

void product_installFsmSpecies(void)
{
    fsm_setProductSpecieNames(productFsmSpecieNames);
}
