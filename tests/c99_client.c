/* Compiled as strict C99: the public headers must hold no C++ or later-C
 * constructs, and a C program reaches everything through the table. */
#include <stdio.h>
#include <string.h>

#include "util_common_base_function.h"
#include "util_common_base_type.h"
#include "util_common_func_type.h"
#include "util_common_high_function.h"
#include "util_dbgout_function.h"
#include "util_function.h"
#include "util_net_function.h"
#include "util_parameter_base_function.h"
#include "util_queue_base_type.h"
#include "util_queue_high_arrayList_function.h"
#include "util_queue_high_linkedList_function.h"
#include "util_stack_base_type.h"
#include "util_stack_high_arrayList_function.h"
#include "util_stack_high_linkedList_function.h"

int main(void)
{
    util_dbgout_t* dbg = util_ops_pfun->dbgout->pstDebugAttr->get();
    UTIL_U8 cmd[3] = {0x81, 0x01, 0x04};
    UTIL_CHAR text[6 * 3 + 1];
    util_string_t s = {NULL, 0};
    util_string_list_t list = {NULL, 0};
    UTIL_BOOL yes = UTIL_TRUE;
    UTIL_Void__FUNC__S32 handler = NULL;

    (void)s;
    (void)list;
    (void)handler;
    dbg->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    if (util_ops_pfun->util_init() != 0 || util_ops_pfun->util_exit() != 0) return 1;
    if (util_ops_pfun->dbgout->cmdToStr(cmd, 3, text) != 0 || strcmp(text, "{0x81, 0x01, 0x04}") != 0) return 2;
    if (util_ops_pfun != &util_ops_quillane_fun) return 3;
    if (util_ops_pfun->common_high->pox_system != Func_pox_system) return 3;
    if (sizeof(UTIL_U64) != 8 || sizeof(UTIL_S16) != 2 || !yes) return 4;
    {
        util_stack_high_arrayList_t tmpl;
        util_stack_high_arrayList_t* st;
        memset(&tmpl, 0, sizeof tmpl);
        tmpl.nodeMax = 2;
        st = util_ops_pfun->stack_high_arrayList->create(&tmpl);
        if (st == NULL || util_ops_pfun->stack_high_arrayList->insert(st, text) != 0 ||
            util_ops_pfun->stack_high_arrayList->getSize(st) != 1 ||
            util_ops_pfun->stack_high_arrayList->destroy(&st) != 0 || st != NULL)
            return 5;
    }
    {
        NET_IPV4 v4;
        util_net_config_t cfg;
        v4.int32 = 0;
        memset(&cfg, 0, sizeof cfg);
        if (util_ops_pfun->net == NULL || util_ops_pfun->net->get_info == NULL || sizeof v4.str != 4 ||
            sizeof cfg.mac != 6)
            return 6;
    }
    printf("%s\n", util_ops_pfun->verInfo);
    return 0;
}
