-- zqrtree 0.1: R*-tree indexes kept by libzqrtree in ordinary tables.
\echo Use "CREATE EXTENSION zqrtree" to load this file. \quit

-- One row per index: its node table "MDRT$" || name and its axis count.
CREATE TABLE zqrtree_catalog (
  node regclass PRIMARY KEY,
  dims integer NOT NULL CHECK (dims BETWEEN 1 AND 3)
);
SELECT pg_catalog.pg_extension_config_dump('zqrtree_catalog', '');

-- Boxes are double precision arrays: all minima, then all maxima
-- ('{minx, miny, maxx, maxy}' on two axes).

CREATE FUNCTION zqrtree_create(name text, dims integer) RETURNS void
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
CREATE FUNCTION zqrtree_drop(name text) RETURNS void
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
CREATE FUNCTION zqrtree_insert(name text, id bigint, box double precision[]) RETURNS void
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
-- The box must be the one stored: an entry is found by its box.
CREATE FUNCTION zqrtree_delete(name text, id bigint, box double precision[]) RETURNS void
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
CREATE FUNCTION zqrtree_update(name text, id bigint, old_box double precision[],
                               new_box double precision[]) RETURNS void
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
-- op: intersect, contains, within, equal, any; 'a|b' all must hold,
-- 'or(a|b)' any one may.
CREATE FUNCTION zqrtree_query(name text, op text, box double precision[])
  RETURNS TABLE (id bigint, box double precision[])
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT STABLE;
-- Bulk build of the current entries and the query's rows, (id, box) or
-- (id, min0, .., max0, ..); returns the entry count.
CREATE FUNCTION zqrtree_load(name text, query text, fill double precision DEFAULT 0.7)
  RETURNS bigint AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
-- The entry count when the tree is sound; an error naming the first
-- violation when not.
CREATE FUNCTION zqrtree_check(name text) RETURNS bigint
  AS 'MODULE_PATHNAME' LANGUAGE C STRICT VOLATILE;
-- AFTER INSERT OR UPDATE OR DELETE ... FOR EACH ROW EXECUTE FUNCTION
-- zqrtree_trigger(index, id column, box column | 2d coordinate columns)
CREATE FUNCTION zqrtree_trigger() RETURNS trigger
  AS 'MODULE_PATHNAME' LANGUAGE C;
