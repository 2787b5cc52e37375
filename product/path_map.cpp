/*
 * The product's built-in path map: everything under /korvenda except the
 * temporary areas.
 *
 * How it reaches KVOS_init without the library calling up into the product:
 * the OS abstraction offers a hook (kvos_set_default_path_map_provider) and
 * this file installs its builder there from a static initialiser, as the
 * product's self-test registration does with the runner. This object is part
 * of the shared library (target `product`, linked above every subsystem) and
 * of every executable built from the library's objects, so the initialiser
 * has run before any main() (or, for a program that loads the library, before
 * the loader hands over) and so before KVOS_init can look for a map. The
 * hook's storage is constant-initialised, so the order of static
 * initialisers does not matter; the map itself is built on first use, not
 * during static initialisation.
 */
#include <iterator>

#include "abstraction/kvos.h"
#include "abstraction/kvos_product.h"

namespace {

_kv_path_map* builtInPathMap(void)
{
    // Built once and never released: lookups may come from any thread until
    // the process ends.
    static _kv_path_map* map = [] {
        static const struct {
            KV_PATH_TYPE type;
            const char* path;
        } kLayout[] = {
            {PATH_TYPE_TMP, "/tmp"},
            {PATH_TYPE_PERM, "/korvenda/persistent"},
            {PATH_TYPE_USER, "/korvenda/user"},
            {PATH_TYPE_PARAM, "/korvenda/persistent/param"},
            {PATH_TYPE_WEB_FILES, "/korvenda/web"},
            {PATH_TYPE_USER_WEB_FILES, "/korvenda/user/web"},
            {PATH_TYPE_WEB_IMAGES, "/korvenda/web/images"},
            {PATH_TYPE_LANGUAGE_FILES, "/korvenda/lang"},
            {PATH_TYPE_LANGUAGE_USER_FILES, "/korvenda/user/lang"},
            {PATH_TYPE_MENU_FILES, "/korvenda/menu"},
            {PATH_TYPE_MENU_IMAGES, "/korvenda/menu/images"},
            {PATH_TYPE_SW_IMAGES, "/korvenda/swimages"},
            {PATH_TYPE_FONTS, "/korvenda/fonts"},
            {PATH_TYPE_EMUL_IMAGES, "/korvenda/emul"},
            {PATH_TYPE_MENU_USER_FILES, "/korvenda/user/menu"},
            {PATH_TYPE_ROOT, "/korvenda"},
            {PATH_TYPE_CONF_IMAGES, "/korvenda/persistent/confimages"},
            {PATH_TYPE_SNAPSHOTS, "/korvenda/persistent/snapshots"},
            {PATH_TYPE_POSTER_IMAGES, "/korvenda/posters"},
            {PATH_TYPE_USER_POSTERS, "/korvenda/user/posters"},
            {PATH_TYPE_SOUND_CLIPS, "/korvenda/sounds"},
            {PATH_TYPE_USER_SOUNDS, "/korvenda/user/sounds"},
            {PATH_TYPE_ETC, "/korvenda/etc"},
            {PATH_TYPE_CRASH_FILES, "/korvenda/persistent/crash"},
            {PATH_TYPE_ROOT_CONFIG, "/korvenda/persistent/config"},
            {PATH_TYPE_CRASH_TMP, "/tmp/crash"},
            {PATH_TYPE_ZEL_CONFIG, "/korvenda/etc"},
        };
        _kv_path_map* head = nullptr;
        for (auto it = std::end(kLayout); it != std::begin(kLayout);) {
            --it;
            head = KVOS_addPathMap(head, it->type, it->path);
        }
        return head;
    }();
    return map;
}

[[maybe_unused]] const bool installed = (kvos_set_default_path_map_provider(builtInPathMap), true);

}  // namespace
