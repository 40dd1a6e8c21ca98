// The element tree: packages, sections, options, list items and recorded
// changes, each one malloc'd object owning its strings, on intrusive lists.
#include "internal.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace uci_impl {

void list_init(uci_list *l) noexcept
{
    l->next = l;
    l->prev = l;
}

void list_insert_before(uci_list *pos, uci_list *node) noexcept
{
    node->next = pos;
    node->prev = pos->prev;
    pos->prev->next = node;
    pos->prev = node;
}

void list_add_tail(uci_list *head, uci_list *node) noexcept
{
    list_insert_before(head, node);
}

void list_del(uci_list *node) noexcept
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    list_init(node);
}

bool valid_name(std::string_view s) noexcept
{
    if (s.empty())
        return false;
    for (unsigned char c : s) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
    }
    return true;
}

bool valid_package(std::string_view s) noexcept
{
    if (s.empty())
        return false;
    for (unsigned char c : s) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'))
            return false;
    }
    return true;
}

bool valid_type(std::string_view s) noexcept
{
    if (s.empty())
        return false;
    for (unsigned char c : s) {
        if (c < 33 || c > 126)
            return false;
    }
    return true;
}

bool valid_text(std::string_view s) noexcept
{
    for (unsigned char c : s) {
        if (c < 32 && c != '\t' && c != '\n' && c != '\r')
            return false;
    }
    return true;
}

// djb2 over the type only: anonymous names must not depend on options,
// which do not exist yet when the section is created.
uint32_t type_hash(std::string_view type) noexcept
{
    uint32_t hash = 5381;
    for (unsigned char c : type)
        hash = hash * 33 + c;
    hash &= 0x7fffffff;
    return hash % 65536;
}

namespace {

char *dup_str(std::string_view s)
{
    char *r = static_cast<char *>(std::malloc(s.size() + 1));
    if (!r)
        throw std::bad_alloc();
    std::memcpy(r, s.data(), s.size());
    r[s.size()] = '\0';
    return r;
}

template <typename T>
T *alloc_element(uci_type type, std::string_view name)
{
    T *obj = static_cast<T *>(std::calloc(1, sizeof(T)));
    if (!obj)
        throw std::bad_alloc();
    list_init(&obj->e.list);
    obj->e.type = type;
    try {
        obj->e.name = dup_str(name);
    } catch (...) {
        std::free(obj);
        throw;
    }
    return obj;
}

void free_element_name(uci_element *e) noexcept
{
    std::free(e->name);
    e->name = nullptr;
}

}  // namespace

uci_package *package_new(uci_context *ctx, std::string_view name)
{
    auto *p = alloc_element<uci_package>(UCI_TYPE_PACKAGE, name);
    list_init(&p->sections);
    list_init(&p->delta);
    list_init(&p->saved_delta);
    p->ctx = ctx;
    p->backend = &ext(ctx)->file_backend;
    return p;
}

void package_free(uci_package *p) noexcept
{
    if (!p)
        return;
    list_del(&p->e.list);
    while (!uci_list_empty(&p->sections))
        section_free(uci_to_section(list_to_element(p->sections.next)));
    delta_list_free(&p->delta);
    delta_list_free(&p->saved_delta);
    std::free(p->path);
    free_element_name(&p->e);
    std::free(p);
}

uci_section *section_new(uci_package *p, std::string_view type, const char *name)
{
    p->n_section++;
    char anon[32];
    if (!name) {
        std::snprintf(anon, sizeof anon, "cfg%02x%04x", static_cast<unsigned>(p->n_section),
                      static_cast<unsigned>(type_hash(type)));
    }
    auto *s = alloc_element<uci_section>(UCI_TYPE_SECTION, name ? std::string_view(name) : anon);
    list_init(&s->options);
    s->package = p;
    s->anonymous = (name == nullptr);
    try {
        s->type = dup_str(type);
    } catch (...) {
        free_element_name(&s->e);
        std::free(s);
        throw;
    }
    list_add_tail(&p->sections, &s->e.list);
    return s;
}

void section_free(uci_section *s) noexcept
{
    list_del(&s->e.list);
    while (!uci_list_empty(&s->options))
        option_free(uci_to_option(list_to_element(s->options.next)));
    std::free(s->type);
    free_element_name(&s->e);
    std::free(s);
}

uci_option *option_new_string(uci_section *s, std::string_view name, std::string_view value)
{
    auto *o = alloc_element<uci_option>(UCI_TYPE_OPTION, name);
    o->section = s;
    o->type = UCI_TYPE_STRING;
    try {
        o->v.string = dup_str(value);
    } catch (...) {
        free_element_name(&o->e);
        std::free(o);
        throw;
    }
    list_add_tail(&s->options, &o->e.list);
    return o;
}

uci_option *option_new_list(uci_section *s, std::string_view name)
{
    auto *o = alloc_element<uci_option>(UCI_TYPE_OPTION, name);
    o->section = s;
    o->type = UCI_TYPE_LIST;
    list_init(&o->v.list);
    list_add_tail(&s->options, &o->e.list);
    return o;
}

void option_clear_items(uci_option *o) noexcept
{
    if (o->type == UCI_TYPE_STRING) {
        std::free(o->v.string);
        o->v.string = nullptr;
        return;
    }
    while (!uci_list_empty(&o->v.list)) {
        uci_element *item = list_to_element(o->v.list.next);
        list_del(&item->list);
        free_element_name(item);
        std::free(item);
    }
}

// Keeps the option's place in its section; a list becomes a string.
void option_set_string(uci_option *o, std::string_view value)
{
    char *copy = dup_str(value);
    option_clear_items(o);
    o->type = UCI_TYPE_STRING;
    o->v.string = copy;
}

// List items are bare elements whose name is the value.
uci_element *item_new(std::string_view value)
{
    auto *item = static_cast<uci_element *>(std::calloc(1, sizeof(uci_element)));
    if (!item)
        throw std::bad_alloc();
    list_init(&item->list);
    item->type = UCI_TYPE_ITEM;
    try {
        item->name = dup_str(value);
    } catch (...) {
        std::free(item);
        throw;
    }
    return item;
}

// A string option turns into a list whose first item is the old value.
void option_add_item(uci_option *o, std::string_view value)
{
    if (o->type == UCI_TYPE_STRING) {
        uci_element *first = item_new(o->v.string ? o->v.string : "");
        std::free(o->v.string);
        o->type = UCI_TYPE_LIST;
        list_init(&o->v.list);
        list_add_tail(&o->v.list, &first->list);
    }
    uci_element *item = item_new(value);
    list_add_tail(&o->v.list, &item->list);
}

void option_free(uci_option *o) noexcept
{
    list_del(&o->e.list);
    option_clear_items(o);
    free_element_name(&o->e);
    std::free(o);
}

void element_rename(uci_element *e, std::string_view name)
{
    char *copy = dup_str(name);
    std::free(e->name);
    e->name = copy;
}

uci_element *find_element(uci_list *list, std::string_view name) noexcept
{
    uci_element *e;
    uci_foreach_element(list, e) {
        if (e->name && name == e->name)
            return e;
    }
    return nullptr;
}

void record_delta(uci_list *list, uci_command cmd, const char *section, const char *option, const char *value)
{
    if (!list)
        return;
    auto *d = alloc_element<uci_delta>(UCI_TYPE_DELTA, "");
    free_element_name(&d->e);
    d->cmd = cmd;
    try {
        if (option)
            d->e.name = dup_str(option);
        if (section)
            d->section = dup_str(section);
        if (value)
            d->value = dup_str(value);
    } catch (...) {
        delta_free(d);
        throw;
    }
    list_add_tail(list, &d->e.list);
}

void delta_free(uci_delta *d) noexcept
{
    list_del(&d->e.list);
    std::free(d->section);
    std::free(d->value);
    free_element_name(&d->e);
    std::free(d);
}

void delta_list_free(uci_list *list) noexcept
{
    while (!uci_list_empty(list))
        delta_free(uci_to_delta(list_to_element(list->next)));
}

}  // namespace uci_impl
