// SPDX-License-Identifier: Apache-2.0
#include "awk.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

namespace swsim {

namespace {

struct Cell {
    double num = 0;
    std::string str;
    bool isNum = true;  // else text (a field that reads as a number is a number)
    bool field = false;  // a field keeps its own text for string use
};

struct Refused {
    std::string why;
};

uint32_t toU32(double d) {
    if (std::isnan(d)) return 0;
    if (d < 0) return static_cast<uint32_t>(0u - toU32(-d));
    if (d >= 4294967296.0) return 0xffffffffu;
    return static_cast<uint32_t>(d);
}

int64_t toInt(double d) {
    if (std::isnan(d)) return 0;
    if (d >= 9.2e18) return INT64_MAX;
    if (d <= -9.2e18) return INT64_MIN;
    return static_cast<int64_t>(d);
}

std::string numText(double d) {
    char b[64];
    if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 1e18)
        std::snprintf(b, sizeof b, "%lld", static_cast<long long>(d));
    else
        std::snprintf(b, sizeof b, "%.6g", d);
    return b;
}

double number(const Cell &c) { return c.isNum ? c.num : std::strtod(c.str.c_str(), nullptr); }
std::string text(const Cell &c) { return c.isNum && !c.field ? numText(c.num) : c.str; }

// A field is a number when all of it (blanks aside) reads as one.
Cell field(const std::string &s) {
    Cell c;
    c.str = s;
    c.isNum = false;
    c.field = true;
    if (s.empty()) return c;
    char *end = nullptr;
    double d = std::strtod(s.c_str(), &end);
    while (end != nullptr && (*end == ' ' || *end == '\t')) ++end;
    if (end != s.c_str() && end != nullptr && *end == '\0') {
        c.num = d;
        c.isNum = true;
    }
    return c;
}

std::string format(const std::string &fmt, const std::vector<Cell> &args) {
    std::string out;
    size_t next = 1;  // args[0] is the format
    for (size_t i = 0; i < fmt.size(); ++i) {
        if (fmt[i] != '%') {
            out += fmt[i];
            continue;
        }
        size_t j = i + 1;
        while (j < fmt.size() && std::strchr("-+ #0123456789.", fmt[j]) != nullptr) ++j;
        if (j >= fmt.size()) throw Refused{"sprintf: unfinished conversion"};
        const char conv = fmt[j];
        std::string conversion = fmt.substr(i, j - i);
        i = j;
        if (conv == '%') {
            out += '%';
            continue;
        }
        Cell arg = next < args.size() ? args[next++] : Cell{0, "", false};
        char b[512];
        if (std::strchr("diouxX", conv) != nullptr) {
            conversion += "ll";
            conversion += conv;
            std::snprintf(b, sizeof b, conversion.c_str(), static_cast<long long>(toInt(number(arg))));
        } else if (std::strchr("eEfgG", conv) != nullptr) {
            conversion += conv;
            std::snprintf(b, sizeof b, conversion.c_str(), number(arg));
        } else if (conv == 's') {
            conversion += 's';
            std::snprintf(b, sizeof b, conversion.c_str(), text(arg).c_str());
        } else if (conv == 'c') {
            conversion += 'c';
            std::snprintf(b, sizeof b, conversion.c_str(), static_cast<int>(toInt(number(arg))));
        } else {
            throw Refused{std::string("sprintf: conversion %") + conv};
        }
        out += b;
    }
    return out;
}

class Program {
public:
    Program(const std::string &src, AwkRun &run, std::map<std::string, Cell> &vars)
        : s_(src), run_(run), vars_(vars) {}

    // Checks (exec false) or runs (exec true) the whole program for one record.
    void pass(bool exec, const std::vector<Cell> &fields) {
        exec_ = exec;
        fields_ = &fields;
        p_ = 0;
        skip();
        expect('{');
        while (true) {
            skipSeparators();
            if (peek() == '}') break;
            statement();
        }
        ++p_;
        skip();
        if (p_ != s_.size()) throw Refused{"text after the action"};
    }

private:
    char peek() const { return p_ < s_.size() ? s_[p_] : '\0'; }
    void skip() {
        while (p_ < s_.size() && (s_[p_] == ' ' || s_[p_] == '\t')) ++p_;
    }
    void skipSeparators() {
        while (p_ < s_.size() && std::strchr(" \t\n;", s_[p_]) != nullptr) ++p_;
    }
    void expect(char c) {
        if (peek() != c) throw Refused{std::string("expected '") + c + "' at " + std::to_string(p_)};
        ++p_;
        skip();
    }
    bool nameChar(char c) const { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }
    std::string name() {
        size_t b = p_;
        while (p_ < s_.size() && nameChar(s_[p_])) ++p_;
        std::string n = s_.substr(b, p_ - b);
        skip();
        return n;
    }

    void statement() {
        const size_t start = p_;
        if (std::isalpha(static_cast<unsigned char>(peek())) || peek() == '_') {
            std::string n = name();
            if (peek() == '=' && (p_ + 1 >= s_.size() || s_[p_ + 1] != '=')) {
                ++p_;
                skip();
                Cell v = expression();
                if (exec_) vars_[n] = v;
                return endStatement();
            }
            p_ = start;
        }
        expression();
        endStatement();
    }
    void endStatement() {
        char c = peek();
        if (c != ';' && c != '\n' && c != '}') throw Refused{"unexpected '" + std::string(1, c) + "'"};
    }

    // Concatenation of power terms.
    Cell expression() {
        Cell v = power();
        while (startsTerm()) {
            Cell r = power();
            v = Cell{0, text(v) + text(r), false};
        }
        return v;
    }
    bool startsTerm() const {
        char c = peek();
        return c == '"' || c == '$' || c == '(' || c == '.' || std::isalnum(static_cast<unsigned char>(c)) || c == '_';
    }
    Cell power() {
        Cell base = primary();
        if (peek() != '^') return base;
        ++p_;
        skip();
        Cell exp = power();
        return Cell{std::pow(number(base), number(exp)), "", true};
    }
    Cell primary() {
        char c = peek();
        if (c == '"') return stringConstant();
        if (c == '(') {
            ++p_;
            skip();
            Cell v = expression();
            expect(')');
            return v;
        }
        if (c == '$') {
            ++p_;
            skip();
            const auto n = static_cast<size_t>(toInt(number(primary())));
            return n < fields_->size() ? (*fields_)[n] : Cell{0, "", false};
        }
        if (std::isdigit(static_cast<unsigned char>(c)) || c == '.') return numberConstant();
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            std::string n = name();
            if (peek() == '(') return call(n);
            auto it = vars_.find(n);
            return it != vars_.end() ? it->second : Cell{0, "", false};
        }
        throw Refused{"unexpected '" + std::string(1, c) + "'"};
    }
    Cell stringConstant() {
        std::string v;
        ++p_;
        while (p_ < s_.size() && s_[p_] != '"') {
            if (s_[p_] == '\\' && p_ + 1 < s_.size()) {
                char e = s_[++p_];
                v += e == 'n' ? '\n' : e == 't' ? '\t' : e;
            } else {
                v += s_[p_];
            }
            ++p_;
        }
        if (p_ >= s_.size()) throw Refused{"unterminated string"};
        ++p_;
        skip();
        return Cell{0, v, false};
    }
    Cell numberConstant() {
        const char *b = s_.c_str() + p_;
        char *end = nullptr;
        double d;
        if (b[0] == '0' && (b[1] == 'x' || b[1] == 'X'))
            d = static_cast<double>(std::strtoull(b, &end, 16));
        else
            d = std::strtod(b, &end);
        p_ += static_cast<size_t>(end - b);
        skip();
        return Cell{d, "", true};
    }
    Cell call(const std::string &fn) {
        expect('(');
        std::vector<Cell> args;
        while (peek() != ')') {
            args.push_back(expression());
            if (peek() == ',') {
                ++p_;
                skip();
            } else if (peek() != ')') {
                throw Refused{"expected ',' or ')' in " + fn};
            }
        }
        expect(')');
        auto arity = [&](size_t n) {
            if (args.size() != n) throw Refused{fn + ": " + std::to_string(args.size()) + " arguments"};
        };
        if (fn == "lshift" || fn == "rshift" || fn == "and" || fn == "or") {
            arity(2);
            const uint32_t a = toU32(number(args[0])), b = toU32(number(args[1]));
            uint32_t r = fn == "lshift" ? a << (b & 31u) : fn == "rshift" ? a >> (b & 31u) : fn == "and" ? a & b : a | b;
            return Cell{static_cast<double>(r), "", true};
        }
        if (fn == "sprintf") {
            if (args.empty()) throw Refused{"sprintf: no format"};
            return exec_ ? Cell{0, format(text(args[0]), args), false} : Cell{0, "", false};
        }
        if (fn == "system") {
            arity(1);
            return Cell{exec_ && run_.system ? static_cast<double>(run_.system(text(args[0]))) : 0.0, "", true};
        }
        throw Refused{"function " + fn + " is not modelled"};
    }

    const std::string &s_;
    AwkRun &run_;
    std::map<std::string, Cell> &vars_;
    const std::vector<Cell> *fields_ = nullptr;
    size_t p_ = 0;
    bool exec_ = false;
};

std::vector<Cell> split(const std::string &record) {
    std::vector<Cell> fields{field(record)};
    size_t i = 0;
    while (true) {
        while (i < record.size() && (record[i] == ' ' || record[i] == '\t')) ++i;
        if (i >= record.size()) break;
        size_t b = i;
        while (i < record.size() && record[i] != ' ' && record[i] != '\t') ++i;
        fields.push_back(field(record.substr(b, i - b)));
    }
    return fields;
}

}  // namespace

int awkRun(const std::string &program, const std::string &input, AwkRun &run) {
    std::map<std::string, Cell> vars;
    Program prog(program, run, vars);
    try {
        prog.pass(false, {});
        size_t at = 0;
        while (at < input.size()) {
            size_t nl = input.find('\n', at);
            if (nl == std::string::npos) nl = input.size();
            prog.pass(true, split(input.substr(at, nl - at)));
            at = nl + 1;
        }
    } catch (const Refused &r) {
        run.error = r.why;
        return 2;
    }
    return 0;
}

}  // namespace swsim
