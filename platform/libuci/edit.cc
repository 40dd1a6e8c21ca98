// Changing data: set, delete, lists, rename, reorder, new sections. Each
// change on a package loaded by name is also recorded for uci_save.
#include "internal.h"

#include <charconv>
#include <cstring>
#include <new>
#include <string>

using namespace uci_impl;

namespace uci_impl {

namespace {

int set_option(uci_ptr *ptr, uci_list *record)
{
    uci_section *s = ptr->s;
    if (!s || !valid_name(ptr->option))
        return UCI_ERR_INVAL;
    if (ptr->value[0] == '\0') {  // an empty value deletes
        if (ptr->o) {
            record_delta(record, UCI_CMD_REMOVE, s->e.name, ptr->o->e.name, nullptr);
            option_free(ptr->o);
            ptr->o = nullptr;
            ptr->last = &s->e;
        }
        return UCI_OK;
    }
    uci_option *o = ptr->o;
    if (o) {
        if (o->type == UCI_TYPE_STRING && std::strcmp(o->v.string, ptr->value) == 0)
            return UCI_OK;
        option_set_string(o, ptr->value);
    } else {
        o = option_new_string(s, ptr->option, ptr->value);
    }
    record_delta(record, UCI_CMD_CHANGE, s->e.name, o->e.name, ptr->value);
    ptr->o = o;
    ptr->option = o->e.name;
    ptr->last = &o->e;
    return UCI_OK;
}

int set_section(uci_ptr *ptr, uci_list *record)
{
    uci_package *p = ptr->p;
    if (ptr->value[0] == '\0') {
        if (ptr->s) {
            record_delta(record, UCI_CMD_REMOVE, ptr->s->e.name, nullptr, nullptr);
            section_free(ptr->s);
            ptr->s = nullptr;
            ptr->last = &p->e;
        }
        return UCI_OK;
    }
    if (!valid_type(ptr->value))
        return UCI_ERR_INVAL;
    uci_section *s = ptr->s;
    if (s) {
        if (std::strcmp(s->type, ptr->value) == 0)
            return UCI_OK;
        char *type = strdup(ptr->value);
        if (!type)
            throw std::bad_alloc();
        std::free(s->type);
        s->type = type;
        s->anonymous = false;  // a retyped section is written with its name
    } else {
        if (!valid_name(ptr->section))
            return UCI_ERR_INVAL;
        s = section_new(p, ptr->value, ptr->section);
    }
    record_delta(record, UCI_CMD_CHANGE, s->e.name, nullptr, ptr->value);
    ptr->s = s;
    ptr->section = s->e.name;
    ptr->last = &s->e;
    return UCI_OK;
}

}  // namespace

int op_set(uci_context *, uci_ptr *ptr, uci_list *record)
{
    if (!ptr->value || !valid_text(ptr->value) || !ptr->section)
        return UCI_ERR_INVAL;
    if (ptr->option)
        return set_option(ptr, record);
    return set_section(ptr, record);
}

int op_delete(uci_context *, uci_ptr *ptr, uci_list *record)
{
    if (!(ptr->flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return UCI_ERR_NOTFOUND;
    uci_option *o = ptr->o;
    bool has_index = ptr->value && ptr->value[0] != '\0';
    if (o && has_index && o->type == UCI_TYPE_LIST) {
        std::string_view v(ptr->value);
        long index = -1;
        auto res = std::from_chars(v.data(), v.data() + v.size(), index);
        if (res.ec != std::errc() || res.ptr != v.data() + v.size())
            return delete_bad_index;
        uci_element *e;
        uci_foreach_element(&o->v.list, e) {
            if (index-- != 0)
                continue;
            record_delta(record, UCI_CMD_REMOVE, ptr->s->e.name, o->e.name, ptr->value);
            list_del(&e->list);
            std::free(e->name);
            std::free(e);
            break;
        }
        return UCI_OK;
    }
    if (o) {
        record_delta(record, UCI_CMD_REMOVE, ptr->s->e.name, o->e.name, nullptr);
        option_free(o);
        ptr->o = nullptr;
        ptr->last = &ptr->s->e;
        return UCI_OK;
    }
    if (ptr->s) {
        record_delta(record, UCI_CMD_REMOVE, ptr->s->e.name, nullptr, nullptr);
        section_free(ptr->s);
        ptr->s = nullptr;
        ptr->last = &ptr->p->e;
        return UCI_OK;
    }
    return UCI_ERR_INVAL;  // whole packages are not deleted this way
}

int op_add_list(uci_context *, uci_ptr *ptr, uci_list *record)
{
    if (!ptr->value || !ptr->option || !valid_text(ptr->value) || !valid_name(ptr->option))
        return UCI_ERR_INVAL;
    if (!ptr->s)
        return UCI_ERR_INVAL;
    uci_option *o = ptr->o;
    if (!o)
        o = option_new_list(ptr->s, ptr->option);
    option_add_item(o, ptr->value);
    record_delta(record, UCI_CMD_LIST_ADD, ptr->s->e.name, o->e.name, ptr->value);
    ptr->o = o;
    ptr->option = o->e.name;
    ptr->last = &o->e;
    return UCI_OK;
}

int op_del_list(uci_context *, uci_ptr *ptr, uci_list *record)
{
    if (!ptr->value || !ptr->option || !valid_name(ptr->option))
        return UCI_ERR_INVAL;
    if (!ptr->s)
        return UCI_ERR_INVAL;
    uci_option *o = ptr->o;
    if (!o)
        return UCI_OK;
    record_delta(record, UCI_CMD_LIST_DEL, ptr->s->e.name, o->e.name, ptr->value);
    if (o->type != UCI_TYPE_LIST)
        return UCI_OK;
    uci_element *e, *tmp;
    uci_foreach_element_safe(&o->v.list, tmp, e) {
        if (std::strcmp(e->name, ptr->value) != 0)
            continue;
        list_del(&e->list);
        std::free(e->name);
        std::free(e);
    }
    return UCI_OK;
}

int op_rename(uci_context *, uci_ptr *ptr, uci_list *record)
{
    if (!ptr->value || !valid_name(ptr->value))
        return UCI_ERR_INVAL;
    if (!(ptr->flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return UCI_ERR_NOTFOUND;
    if (ptr->o) {
        record_delta(record, UCI_CMD_RENAME, ptr->s->e.name, ptr->o->e.name, ptr->value);
        element_rename(&ptr->o->e, ptr->value);
        ptr->option = ptr->o->e.name;
        return UCI_OK;
    }
    if (ptr->s) {
        record_delta(record, UCI_CMD_RENAME, ptr->s->e.name, nullptr, ptr->value);
        element_rename(&ptr->s->e, ptr->value);
        ptr->s->anonymous = false;
        ptr->section = ptr->s->e.name;
        return UCI_OK;
    }
    return UCI_ERR_INVAL;
}

int op_reorder(uci_section *s, int pos, uci_list *record)
{
    uci_package *p = s->package;
    list_del(&s->e.list);
    uci_list *at = &p->sections;
    uci_element *e;
    int i = 0;
    uci_foreach_element(&p->sections, e) {
        if (i++ == pos) {
            at = &e->list;
            break;
        }
    }
    list_insert_before(at, &s->e.list);
    std::string value = std::to_string(pos);
    record_delta(record, UCI_CMD_REORDER, s->e.name, nullptr, value.c_str());
    return UCI_OK;
}

uci_section *op_add_section(uci_package *p, std::string_view type, uci_list *record)
{
    uci_section *s = section_new(p, type, nullptr);
    record_delta(record, UCI_CMD_ADD, s->e.name, nullptr, s->type);
    return s;
}

}  // namespace uci_impl

namespace {

using edit_fn = int (*)(uci_context *, uci_ptr *, uci_list *);

// Looks the pointer up unless the caller did, then applies one edit.
int run_edit(uci_context *ctx, uci_ptr *ptr, edit_fn fn) noexcept
{
    if (!ptr)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        if (!(ptr->flags & uci_ptr::UCI_LOOKUP_DONE)) {
            int r = lookup_ptr(ctx, ptr, false);
            if (r != UCI_OK)
                return set_error(ctx, r);
        }
        if (!ptr->p)
            return set_error(ctx, UCI_ERR_INVAL);
        int r = fn(ctx, ptr, ptr->p->has_delta ? &ptr->p->delta : nullptr);
        if (r == delete_bad_index)
            return 1;  // the library's answer: 1, with ctx->err still "Success"
        return set_error(ctx, r);
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

}  // namespace

extern "C" int uci_set(uci_context *ctx, uci_ptr *ptr)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    return run_edit(ctx, ptr, op_set);
}

extern "C" int uci_delete(uci_context *ctx, uci_ptr *ptr)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    return run_edit(ctx, ptr, op_delete);
}

extern "C" int uci_add_list(uci_context *ctx, uci_ptr *ptr)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    return run_edit(ctx, ptr, op_add_list);
}

extern "C" int uci_del_list(uci_context *ctx, uci_ptr *ptr)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    return run_edit(ctx, ptr, op_del_list);
}

extern "C" int uci_rename(uci_context *ctx, uci_ptr *ptr)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    return run_edit(ctx, ptr, op_rename);
}

extern "C" int uci_reorder_section(uci_context *ctx, uci_section *s, int pos)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!s || !s->package || pos < 0)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        uci_package *p = s->package;
        return set_error(ctx, op_reorder(s, pos, p->has_delta ? &p->delta : nullptr));
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

extern "C" int uci_add_section(uci_context *ctx, uci_package *p, const char *type, uci_section **res)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!p || !type)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        uci_section *s = op_add_section(p, type, p->has_delta ? &p->delta : nullptr);
        if (res)
            *res = s;
        return UCI_OK;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}
